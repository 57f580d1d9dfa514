// nphost::RequestParser: takes HTTP/1 requests apart as they come in, by Boost.Beast's parser and rules of our own.
//
// Purpose: Beast's parser holds the grammar; what it leaves open is refused here, since a request that two programs read
// differently lets a second one be smuggled in:
// - Transfer-Encoding other than exactly "chunked", in HTTP/1.0, twice, or beside Content-Length;
// - Content-Length that is no plain number, or comes twice;
// - tabs around the value of either; obsolete line folding, which Beast would undo;
// - HTTP/1.1 without Host, Host twice, or one that is no name;
// - a chunk that is malformed at its beginning, before the rest of its head has come;
// - trailers of more than 1 KiB in all; a header of more than 8 KiB.
// Use: put() with what has come in, again and again with what it left; when the header is whole (hasHeader), its texts
// can be asked for, and the body's limit must be set before the next put. Requests do not depend on how their bytes were
// split; which of several faults is told may.
// Ownership: owns copies of the fields that the front uses. Not reused: each request gets a parser of its own.
// Threads: none inside.
// Errors: put returns what is wrong as a status of HTTP, and then nothing more can be parsed; std::bad_alloc.
// Complexity: linear.
// Source: RFC 9112, with the limits of docs/operations.md.
#pragma once

#include "host/base/Text.h"

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace nphost {

class RequestParser : private boost::beast::http::basic_parser<true> {
    using Base = boost::beast::http::basic_parser<true>;
    using Error = boost::beast::error_code;
    using View = boost::beast::string_view;
    using Field = boost::beast::http::field;

  public:
    static constexpr std::uint32_t mostHeaderBytesCM = 8192;
    static constexpr std::size_t mostTrailerBytesCM = 1024;
    static constexpr std::size_t leastChunkBytesCM = 5; // of a body's end: "0", CRLF, CRLF

    struct Refusal {
        unsigned int status = 0; // none
        char const* detail = "";
        explicit operator bool() const { return status != 0; }
    };
    // The body's pieces, in order, as put finds them; false ends the parsing.
    class BodyVisitor {
      public:
        virtual ~BodyVisitor() = default;
        virtual bool body(std::string_view piece) = 0;
    };

    RequestParser() {
        header_limit(2 * mostHeaderBytesCM); // Beast counts what is left of it; put counts all of it
        body_limit(boost::none);
    }

    // How much of the text it has taken. Nothing of a text that is not empty: more must come first.
    std::size_t put(std::string_view text, BodyVisitor& visitor, Refusal& refusal) {
        visitorM = &visitor;
        bool const isHeader = !hasHeader();
        if (!isHeader && chunked() && chunkLeftM == 0) {
            // Beast looks at a chunk's head when all of it is there, which may never be.
            if (!mayBeginChunk(text)) {
                refusal = refusalOf(boost::beast::http::error::bad_chunk);
                return 0;
            }
            // What follows is no less in any case, and Beast counts on it where the last chunk comes in pieces.
            if (text.size() < leastChunkBytesCM)
                return 0;
        }
        std::size_t const room = mostHeaderBytesCM - headerBytesM;
        textM = isHeader ? text.substr(0, room) : text;
        Error error;
        std::size_t const taken = Base::put(boost::asio::buffer(textM.data(), textM.size()), error);
        if (isHeader)
            headerBytesM += taken;
        if (error == boost::beast::http::error::need_more)
            error = isHeader && text.size() >= room ? boost::beast::http::error::header_limit : Error();
        if (error)
            refusal = refusalM ? refusalM : refusalOf(error);
        return taken;
    }

    bool hasBegun() const { return got_some(); }
    bool hasHeader() const { return is_header_done(); }
    bool isDone() const { return is_done(); }
    // False when the header says already that the body is longer; of chunks put finds it.
    bool limitBody(std::uint64_t bytes) {
        body_limit(bytes);
        return contentLengthM <= bytes;
    }
    bool keepsAlive() const { return keep_alive(); }
    bool isHttp10() const { return versionM == 10; }
    bool awaitsContinue() const { return continueM && !isHttp10(); }
    bool hasBody() const { return chunked() || contentLengthM > 0; }

    std::string_view method() const { return methodM; }
    std::string_view target() const { return targetM; }
    std::string_view host() const { return at(HOST); }
    std::string_view authorization() const { return at(AUTHORIZATION); }
    std::string_view contentType() const { return at(CONTENT_TYPE); }
    std::string_view accept() const { return at(ACCEPT); }
    std::string_view ifNoneMatch() const { return at(IF_NONE_MATCH); }
    std::string_view origin() const { return at(ORIGIN); }
    std::string_view preflight() const { return at(PREFLIGHT); }

  private:
    enum Kept { HOST, AUTHORIZATION, CONTENT_TYPE, ACCEPT, IF_NONE_MATCH, ORIGIN, PREFLIGHT, keptCM };

    static Refusal refusalOf(Error const& wrong) {
        using boost::beast::http::error;
        if (wrong == error::header_limit)
            return {431, "the header is longer than 8 KiB"};
        if (wrong == error::body_limit)
            return {413, "the body is longer than this request may have"};
        if (wrong == error::bad_version)
            return {505, "the version is not HTTP/1.0 or HTTP/1.1"};
        if (wrong == error::bad_transfer_encoding)
            return {400, "Transfer-Encoding comes twice or beside Content-Length"};
        if (wrong == error::bad_content_length || wrong == error::multiple_content_length)
            return {400, "Content-Length is no number, comes twice or beside Transfer-Encoding"};
        if (wrong == error::bad_chunk || wrong == error::bad_chunk_extension)
            return {400, "a chunk of the body is malformed"};
        return {400, "the request is malformed"};
    }

    // Whether what has come can go on as a chunk does: behind another one's data CRLF, and then a digit of its size.
    bool mayBeginChunk(std::string_view text) const {
        std::string_view const before = chunkBegunM ? "\r\n" : "";
        std::size_t const common = std::min(text.size(), before.size());
        if (text.substr(0, common) != before.substr(0, common))
            return false;
        text.remove_prefix(common);
        return text.empty() || hexDigit(text.front()) >= 0;
    }

    std::string_view at(Kept field) const { return {textsM.data() + keptM[field].begin, keptM[field].length}; }

    void refuse(unsigned int status, char const* detail, Error& error) {
        refusalM = {status, detail};
        error = boost::beast::http::error::bad_field;
    }

    void keep(Kept field, View value, Error& error) {
        Piece& piece = keptM[field];
        if (piece.present)
            return refuse(400, "a field that may come once comes twice", error);
        piece = {true, textsM.size(), value.size()};
        textsM.append(value.data(), value.size());
    }

    void on_request_impl(boost::beast::http::verb /*method*/, View method, View target, int version,
                         Error& error) override {
        methodM.assign(method.data(), method.size());
        targetM.assign(target.data(), target.size());
        versionM = version;
        error = {};
    }

    void on_response_impl(int /*code*/, View /*reason*/, int /*version*/, Error& error) override { error = {}; }

    // What stands between a name and its value, and behind that. Beast unfolds lines: then it is no piece of the text,
    // or has the line's end in it.
    bool isFolded(View name, View value) const {
        std::less<> const before;
        char const* const end = name.data() + name.size();
        if (before(value.data(), end) || before(textM.data() + textM.size(), value.data() + value.size()))
            return true;
        return std::find(end, value.data(), '\n') != value.data();
    }
    static bool hasTabs(View name, View value) {
        char const* last = value.data() + value.size();
        if (std::find(name.data() + name.size(), value.data(), '\t') != value.data())
            return true;
        while (*last == ' ')
            ++last;
        return *last == '\t';
    }

    // Counted, and passed over.
    void passTrailer(View name, View value, Error& error) {
        trailerBytesM += name.size() + value.size() + 4;
        if (trailerBytesM > mostTrailerBytesCM)
            refuse(431, "the trailers are longer than 1 KiB", error);
    }

    // RFC 3986, section 3.2.2 and 3.2.3: a host and a port.
    void takeHost(View value, Error& error) {
        if (keptM[HOST].present)
            return refuse(400, "Host comes twice", error);
        constexpr std::string_view others = "-._~!$&'()*+,;=%:[]";
        bool const isName = std::all_of(value.begin(), value.end(), [others](char c) {
            return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                   others.find(c) != std::string_view::npos;
        });
        isName ? keep(HOST, value, error) : refuse(400, "Host is no name with a port", error);
    }

    void takeEncoding(View value, Error& error) {
        if (!boost::beast::iequals(value, "chunked"))
            return refuse(501, "the Transfer-Encoding is not chunked", error);
        if (hasEncodingM)
            return refuse(400, "Transfer-Encoding comes twice", error);
        hasEncodingM = true;
    }

    void takeLength(View value, Error& error) {
        if (hasLengthM || value.empty() || value.size() > 18 || !std::all_of(value.begin(), value.end(), isDigit))
            return refuse(400, "Content-Length is no number, or comes twice", error);
        hasLengthM = true;
        for (char const digit : value)
            contentLengthM = contentLengthM * 10 + static_cast<std::uint64_t>(digit - '0');
    }

    void on_field_impl(Field name, View nameText, View value, Error& error) override {
        error = {};
        if (isFolded(nameText, value))
            return refuse(400, "a field goes on in the next line", error);
        if ((name == Field::transfer_encoding || name == Field::content_length) && hasTabs(nameText, value))
            return refuse(400, "there is a tab beside what says how long the body is", error);
        if (headerM)
            return passTrailer(nameText, value, error);
        switch (name) {
        case Field::host:
            return takeHost(value, error);
        case Field::transfer_encoding:
            return takeEncoding(value, error);
        case Field::content_length:
            return takeLength(value, error);
        case Field::expect:
            if (!boost::beast::iequals(value, "100-continue"))
                return refuse(417, "the only thing that may be expected is 100-continue", error);
            continueM = true;
            break;
        case Field::authorization:
            return keep(AUTHORIZATION, value, error);
        case Field::content_type:
            return keep(CONTENT_TYPE, value, error);
        case Field::accept: // may come as several; the first is what we look at
            return keptM[ACCEPT].present ? void() : keep(ACCEPT, value, error);
        case Field::if_none_match:
            return keptM[IF_NONE_MATCH].present ? void() : keep(IF_NONE_MATCH, value, error);
        case Field::origin:
            return keep(ORIGIN, value, error);
        case Field::access_control_request_method:
            return keep(PREFLIGHT, value, error);
        default:
            break;
        }
    }

    void on_header_impl(Error& error) override {
        error = {};
        headerM = true;
        if (versionM == 11 && !keptM[HOST].present)
            return refuse(400, "Host is missing", error);
        if (versionM == 10 && hasEncodingM)
            return refuse(400, "Transfer-Encoding is none of HTTP/1.0's", error);
        if (hasEncodingM && hasLengthM)
            return refuse(400, "Transfer-Encoding comes beside Content-Length", error);
    }

    void on_body_init_impl(boost::optional<std::uint64_t> const& /*length*/, Error& error) override { error = {}; }

    std::size_t on_body_impl(View body, Error& error) override {
        error = {};
        if (!visitorM->body({body.data(), body.size()}))
            error = boost::beast::http::error::end_of_stream;
        return body.size();
    }

    void on_chunk_header_impl(std::uint64_t size, View /*extensions*/, Error& error) override {
        error = {};
        chunkLeftM = size;
        chunkBegunM = true;
    }

    std::size_t on_chunk_body_impl(std::uint64_t /*remain*/, View body, Error& error) override {
        chunkLeftM -= body.size();
        return on_body_impl(body, error);
    }

    void on_finish_impl(Error& error) override { error = {}; }

    struct Piece {
        bool present = false;
        std::size_t begin = 0;
        std::size_t length = 0;
    };

    std::string methodM;
    std::string targetM;
    std::string textsM; // of the fields that are kept
    std::array<Piece, keptCM> keptM{};
    BodyVisitor* visitorM = nullptr;
    std::string_view textM; // that put has been given
    Refusal refusalM;
    std::size_t headerBytesM = 0; // taken
    std::uint64_t chunkLeftM = 0; // of the data of the chunk that has begun
    std::uint64_t contentLengthM = 0;
    std::size_t trailerBytesM = 0;
    bool chunkBegunM = false; // the first one has
    int versionM = 11;
    bool headerM = false;
    bool hasEncodingM = false;
    bool hasLengthM = false;
    bool continueM = false;
};

} // namespace nphost
