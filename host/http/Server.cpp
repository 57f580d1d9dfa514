// The HTTP front's sockets, threads and TLS: the one file that knows Boost.Asio, Boost.Beast and OpenSSL.
//
// Each thread (Worker) has an event loop, its own acceptors on the same listening sockets and its connections, so that
// nothing but the limits is shared. A connection reads when it can, takes requests apart, has them answered and writes;
// it reads no further while an answer waits for its reader. Deadlines are looked at twice a second (Worker::tick), so
// that a request costs no timer.
#include "host/base/HostError.h"
#include "host/base/RegularFile.h"
#include "host/base/Text.h"
#include "host/config/Configuration.h"
#include "host/http/AccessLog.h"
#include "host/http/Api.h"
#include "host/http/DeltaUpload.h"
#include "host/http/HttpShared.h"
#include "host/http/RequestParser.h"
#include "host/log/OwnReport.h"
#include "host/net/InternetSocket.h"
#include "host/net/UnixSocket.h"
#include "host/service/ConnectionLimits.h"
#include "host/service/FrontTable.h"
#include "host/service/Metrics.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <netinet/tcp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <optional>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace nphost {

namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;
using PlainSocket = asio::generic::stream_protocol::socket;
using TlsSocket = asio::ssl::stream<PlainSocket>;

constexpr milliseconds tickCM{500};
constexpr seconds headerTimeCM{5};    // for a header, and for a handshake
constexpr seconds bodyTimeCM{30};     // for bodyBlockCM bytes of a body, or its end
constexpr seconds writeTimeCM{30};    // for what is being written
constexpr seconds lingerTimeCM{2};    // for a client to read the last answer
constexpr seconds commandTimeCM{600}; // beyond it the client hears no more of a command; it goes on
constexpr seconds graceCM{5};         // for requests under way when the daemon stops
constexpr std::size_t bodyBlockCM = 1024;
constexpr std::size_t readBytesCM = 16UL * 1024;     // a stream's answers to that many fit into a processor's cache
constexpr std::size_t outputBytesCM = 128UL * 1024;  // beyond which nothing more is answered before it is written
constexpr std::size_t leftoverBytesCM = 16UL * 1024; // that may wait for the rest of an element
constexpr std::size_t discardedBodyCM = 64UL * 1024; // of a body that nobody wants
constexpr std::size_t keptBytesCM = 4096;            // of storage, of an idle connection
constexpr unsigned int mostThreadsCM = 4;            // by default

Sha256 sha256(std::string_view text) {
    Sha256 digest;
    SHA256(reinterpret_cast<unsigned char const*>(text.data()), text.size(), digest.data());
    return digest;
}

class Worker;

// What a worker knows of each of its connections.
class Connection {
  public:
    Connection() = default;
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;
    virtual ~Connection() = default;
    virtual void tick(Clock::time_point now) = 0;
    // Ends when it is idle, else with the answer under way.
    virtual void beginStop() = 0;
    // The command that it waits for will not be answered.
    virtual void dismiss() = 0;
    virtual void cut() = 0;
};

using Connections = std::list<std::shared_ptr<Connection>>;

// Does what takes its time, one piece of work after the other, on a thread of its own.
class Librarian {
  public:
    Librarian() : threadM([this] { run(); }) {}
    Librarian(Librarian const&) = delete;
    Librarian& operator=(Librarian const&) = delete;
    ~Librarian() { stop(); }

    // What waits is dropped; what is under way ends.
    void stop() {
        {
            BAS::MutexGuard const guard(lockM);
            stopM = true;
            waitingM.clear();
        }
        changedM.notify_one();
        if (threadM.joinable())
            threadM.join();
    }

    // False when too much is waiting.
    bool post(std::function<void()> work) {
        BAS::MutexGuard const guard(lockM);
        if (stopM || waitingM.size() >= mostWaitingCM)
            return false;
        waitingM.push_back(std::move(work));
        changedM.notify_one();
        return true;
    }

  private:
    static constexpr std::size_t mostWaitingCM = 16;

    void run() {
        blockSignals();
        for (;;) {
            std::function<void()> work;
            {
                BAS::MutexGuard const guard(lockM);
                while (waitingM.empty() && !stopM)
                    changedM.wait(lockM);
                if (stopM)
                    return;
                work = std::move(waitingM.front());
                waitingM.pop_front();
            }
            try {
                work();
            } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): its client's time runs out
            }
        }
    }

    BAS::Mutex lockM;
    std::condition_variable_any changedM;
    std::list<std::function<void()>> waitingM NP_GUARDED_BY(lockM);
    bool stopM NP_GUARDED_BY(lockM) = false;
    std::thread threadM; // last: it uses all else
};

// The parts that all workers share.
struct Common {
    FrontParts parts; // references
    HttpShared shared;
    ConnectionLimits limits;
    AccessLog accessLog;
    Librarian librarian;
    BAS::Mutex tlsLock;
    std::shared_ptr<asio::ssl::context> tls NP_GUARDED_BY(tlsLock);

    std::shared_ptr<asio::ssl::context> tlsContext() {
        BAS::MutexGuard const guard(tlsLock);
        return tls;
    }
};

class Worker {
  public:
    Worker(Common& common, std::vector<std::pair<int, bool>> const& listeners);
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;
    ~Worker() { join(); }

    void beginStop();
    void dismiss();
    void cut();
    // False when it still has connections then.
    bool endsBy(Clock::time_point time) { return endedM.wait_until(time) == std::future_status::ready; }
    void join() {
        if (threadM.joinable())
            threadM.join();
    }

    Common& common() { return commonM; }
    asio::io_context& context() { return contextM; }
    Api& api() { return apiM; }
    Metrics::Cell& counts() { return countsM; }
    Clock::time_point now() const { return nowM; }
    bool isStopping() const { return stoppingM; }
    std::array<char, readBytesCM>& scratch() { return scratchM; }
    // "Date: ...\r\n", of this second.
    std::string_view date();
    void remove(Connections::iterator place);

  private:
    struct Listener {
        Listener(asio::io_context& context, int descriptor, bool encrypted)
            : socket(context, descriptor), again(context), isEncrypted(encrypted) {}
        asio::posix::stream_descriptor socket;
        asio::steady_timer again;
        bool isEncrypted;
    };

    void run();
    void awaitConnection(Listener& listener);
    void accept(Listener& listener);
    void take(int descriptor, sockaddr_storage const& peer, bool encrypted);
    void awaitTick();
    void endIfDone();

    Common& commonM;
    asio::io_context contextM{1};
    Metrics::Cell countsM;
    Api apiM;
    asio::steady_timer timerM{contextM};
    std::list<Listener> listenersM;
    Connections connectionsM;
    Clock::time_point nowM = Clock::now();
    std::time_t dateSecondM = 0;
    std::string dateM;
    bool stoppingM = false;
    bool cutM = false;
    std::array<char, readBytesCM> scratchM; // of whoever reads
    std::promise<void> endM;
    std::future<void> endedM = endM.get_future();
    std::thread threadM;
};

template <class Socket>
class SocketConnection : public Connection,
                         public std::enable_shared_from_this<SocketConnection<Socket>>,
                         private RequestParser::BodyVisitor {
    static constexpr bool encryptedCM = std::is_same_v<Socket, TlsSocket>;

  public:
    template <class... Rest>
    SocketConnection(Worker& worker, std::string address, Rest&&... rest)
        : workerM(worker), addressM(std::move(address)), socketM(std::forward<Rest>(rest)...) {
        workerM.counts().connectionOpened();
    }
    ~SocketConnection() override {
        workerM.common().limits.leave(addressM);
        workerM.counts().connectionClosed();
    }

    void start(Connections::iterator place, std::shared_ptr<asio::ssl::context> tls) {
        placeM = place;
        tlsM = std::move(tls);
        if constexpr (encryptedCM) {
            phase(Phase::HANDSHAKE, headerTimeCM);
            socketM.async_handshake(asio::ssl::stream_base::server,
                                    [self = this->shared_from_this()](error_code error) {
                                        if (error) {
                                            self->workerM.counts().connectionRefused(ConnectionRefusal::HANDSHAKE);
                                            return self->close();
                                        }
                                        self->noteCertificate();
                                        self->awaitInput(Phase::IDLE);
                                    });
        } else {
            awaitInput(Phase::IDLE);
        }
    }

    void tick(Clock::time_point now) override {
        if (now < deadlineM || phaseM == Phase::CLOSED)
            return;
        switch (phaseM) {
        case Phase::HEADER:
        case Phase::BODY:
            // Whoever sends too slowly is told, and let go.
            workerM.counts().connectionDropped(ConnectionDrop::SLOW_REQUEST);
            if (encryptedCM || streamBegunM) // no answer can go between what is under way
                return close();
            refuse(408, "the request did not come in time");
            return flush();
        case Phase::WRITING:
            workerM.counts().connectionDropped(ConnectionDrop::SLOW_READER);
            return close();
        case Phase::COMMAND:
            if (!commandedM)
                return;
            commandedM = false;
            ++turnM; // what comes of it is nobody's any more
            answer(problem(503, "the command has not ended yet; it goes on"));
            return flush();
        default:
            return close();
        }
    }

    void beginStop() override {
        if (phaseM == Phase::IDLE && inputM.empty())
            return close();
        closeAfterM = true;
    }

    void dismiss() override {
        if (!commandedM || stepM.kind != Step::COMMAND)
            return;
        commandedM = false;
        ++turnM;
        guarded([this] {
            answer(problem(503, "the daemon stops; the command was not carried out"));
            flush();
        });
    }

    void cut() override { close(); }

  private:
    enum class Phase { HANDSHAKE, IDLE, HEADER, BODY, COMMAND, WRITING, LINGER, CLOSED };

    PlainSocket& plain() {
        if constexpr (encryptedCM)
            return socketM.next_layer();
        else
            return socketM;
    }

    void phase(Phase phase, Clock::duration time) {
        phaseM = phase;
        deadlineM = workerM.now() + time;
    }

    void noteCertificate() {
        if constexpr (encryptedCM) {
            X509* const certificate = SSL_get_peer_certificate(socketM.native_handle());
            if (certificate == nullptr)
                return;
            hasCertificateM = SSL_get_verify_result(socketM.native_handle()) == X509_V_OK;
            std::array<char, 256> name{};
            X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name.data(), name.size());
            certificateM = name.data();
            X509_free(certificate);
        }
    }

    // --- reading ---

    void awaitInput(Phase next) {
        if (next == Phase::IDLE) {
            if (workerM.isStopping() || closeAfterM)
                return finish();
            release(inputM);
            release(outputM);
            release(writtenM);
            phase(Phase::IDLE, idleTime());
        }
        readOn();
    }

    static void release(std::string& text) {
        text.clear();
        if (text.capacity() > keptBytesCM)
            text.shrink_to_fit();
    }

    // Of a plain connection nothing is held while it waits; TLS reads ahead, so it must be asked itself.
    void readOn() {
        if (readingM)
            return;
        readingM = true;
        if constexpr (encryptedCM) {
            if (!receivedM)
                receivedM = std::make_unique<std::array<char, 4096>>();
            socketM.async_read_some(asio::buffer(*receivedM),
                                    [self = this->shared_from_this()](error_code error, std::size_t count) {
                                        self->readingM = false;
                                        if (error)
                                            return self->inputEnded();
                                        self->came({self->receivedM->data(), count});
                                    });
        } else {
            socketM.async_wait(PlainSocket::wait_read, [self = this->shared_from_this()](error_code error) {
                self->readingM = false;
                if (error)
                    return self->inputEnded();
                auto& scratch = self->workerM.scratch();
                std::size_t const count = self->socketM.read_some(asio::buffer(scratch), error);
                if (error == asio::error::would_block || error == asio::error::interrupted)
                    return self->readOn();
                if (error)
                    return self->inputEnded();
                self->came({scratch.data(), count});
            });
        }
    }

    // A client that has said all may still read.
    void inputEnded() {
        if (phaseM != Phase::COMMAND && phaseM != Phase::WRITING)
            close();
    }

    void came(std::string_view text) {
        if (phaseM == Phase::CLOSED)
            return;
        if (phaseM == Phase::LINGER)
            return readOn();
        if (phaseM == Phase::IDLE)
            phase(Phase::HEADER, headerTimeCM);
        guarded([&] {
            if (inputM.empty()) {
                text.remove_prefix(process(text));
                inputM.append(text);
            } else {
                inputM.append(text);
                processInput();
            }
            afterProcessing();
        });
    }

    // What goes wrong with a connection, for want of memory most of all, ends it and no other.
    template <class Action>
    void guarded(Action&& action) {
        try {
            action();
        } catch (std::exception const&) {
            close();
        }
    }

    void processInput() { inputM.erase(0, process(inputM)); }

    void afterProcessing() {
        if (!outputM.empty())
            return flush();
        if (phaseM == Phase::COMMAND || phaseM == Phase::CLOSED)
            return;
        if (phaseM == Phase::IDLE && closeAfterM)
            return finish();
        awaitInput(phaseM);
    }

    // Takes whole requests, and of bodies what is there, until something is missing or enough has been answered.
    std::size_t process(std::string_view text) {
        std::size_t taken = 0;
        while (taken < text.size() && !stopsReading()) {
            std::string_view rest = text.substr(taken);
            if (!parserM) {
                begunM = Clock::now();
                // One empty line before a request is passed over (RFC 9112, section 2.2).
                if (rest == "\r" && !emptyLineM)
                    break;
                if (rest.starts_with("\r\n") && !std::exchange(emptyLineM, true)) {
                    taken += 2;
                    continue;
                }
                parserM.emplace();
                phase(Phase::HEADER, headerTimeCM);
            }
            std::size_t const count = advance(rest);
            taken += count;
            if (count == 0)
                break;
        }
        if (text.size() - taken > leftoverBytesCM && !stopsReading())
            streamBegunM ? breakStream() : refuse(400, "a part of the request is too long");
        return taken;
    }

    bool stopsReading() const {
        return outputM.size() > outputBytesCM || phaseM == Phase::COMMAND || phaseM == Phase::LINGER ||
               phaseM == Phase::CLOSED || refusedM || (closeAfterM && !parserM && answeredM);
    }

    // What the system has no means for ends this request and no other.
    std::size_t advance(std::string_view rest) {
        std::size_t const whole = outputM.size();
        try {
            return parse(rest);
        } catch (std::exception const&) {
            outputM.resize(whole); // without the beginning of an answer
            fail();
            return 0;
        }
    }

    void fail() {
        try {
            streamBegunM ? breakStream() : refuse(503, "the system has no memory, thread or file for this now");
        } catch (std::exception const&) {
            close();
        }
    }

    std::size_t parse(std::string_view rest) {
        RequestParser::Refusal refusal;
        bool const hadHeader = parserM->hasHeader();
        std::size_t const begun = chunkBegin();
        std::size_t taken = parserM->put(rest, *this, refusal);
        chunkEnd(begun);
        if (refusal && !sinkEndedM) {
            if (streamBegunM)
                breakStream();
            else
                refuse(refusal.status, refusal.detail);
            return 0;
        }
        if (!hadHeader && parserM->hasHeader())
            headerCame();
        if (parserM && sinkEndedM)
            return bodyRefused(), taken;
        if (parserM && parserM->hasHeader() && parserM->isDone() && !refusedM)
            requestCame();
        return taken;
    }

    void headerCame() {
        Request request;
        request.method = parserM->method();
        request.target = parserM->target();
        request.host = parserM->host();
        request.authorization = parserM->authorization();
        request.contentType = parserM->contentType();
        request.accept = parserM->accept();
        request.ifNoneMatch = parserM->ifNoneMatch();
        request.origin = parserM->origin();
        request.preflight = parserM->preflight();
        request.certificate = certificateM;
        request.hasCertificate = hasCertificateM;
        isHeadM = request.method == "HEAD";
        stepM = workerM.api().handle(request);
        BodySink::Counts const counts = workerM.api().takeCounts();
        workerM.counts().lookedUp(counts.found, counts.notFound);
        if (stepM.kind != Step::BODY)
            return bodyUnwanted();
        if (!parserM->limitBody(stepM.sink->mostBytes()))
            return refuse(413, "the body is longer than this request may have");
        phase(Phase::BODY, bodyTimeCM);
        blockM = 0;
        if (parserM->awaitsContinue() && !parserM->isDone())
            outputM += "HTTP/1.1 100 Continue\r\n\r\n";
        if (char const* const type = stepM.sink->streams()) {
            Response head;
            head.type = type;
            streamBegunM = true;
            appendHead(head, std::nullopt);
        }
    }

    // A short one is read and passed over, so that the connection can be used again.
    void bodyUnwanted() {
        if (!parserM->hasBody())
            return;
        if (parserM->awaitsContinue() || !parserM->limitBody(discardedBodyCM)) {
            if (stepM.kind != Step::ANSWER) // which comes only when others have done what was asked for
                return refuse(413, "this request takes no body");
            closeAfterM = true;
            respond(stepM.response);
            refusedM = true;
            return;
        }
        phase(Phase::BODY, bodyTimeCM);
    }

    // The parser's: a piece of the body.
    bool body(std::string_view piece) override {
        blockM += piece.size();
        if (blockM >= bodyBlockCM) {
            blockM = 0;
            phase(Phase::BODY, bodyTimeCM);
        }
        if (stepM.kind != Step::BODY)
            return true;
        if (stepM.sink->take(piece, outputM))
            return true;
        sinkEndedM = true;
        return false;
    }

    // A piece of a streamed answer goes between the length of its chunk, which is written last, and its end.
    static constexpr std::size_t chunkHeadCM = 10; // eight digits and CRLF

    std::size_t chunkBegin() {
        if (!streamBegunM || parserM->isHttp10())
            return std::string::npos;
        outputM.append(chunkHeadCM, '0');
        return outputM.size();
    }
    void chunkEnd(std::size_t begin) {
        if (begin == std::string::npos)
            return;
        std::size_t const length = outputM.size() - begin;
        if (length == 0) {
            outputM.resize(begin - chunkHeadCM);
            return;
        }
        constexpr char digits[] = "0123456789abcdef";
        for (std::size_t i = 0; i < 8; ++i)
            outputM[begin - 3 - i] = digits[length >> (4 * i) & 0xf];
        outputM[begin - 2] = '\r';
        outputM[begin - 1] = '\n';
        outputM += "\r\n";
    }

    // The sink takes no more: it says why, and the rest of the body is not read.
    void bodyRefused() {
        closeAfterM = true;
        if (streamBegunM) {
            endStream();
            refusedM = true;
            return;
        }
        Step step = stepM.sink->end(outputM);
        respond(step.response);
        refusedM = true;
    }

    // What was answered stands; that the chunks have no end tells the client that it is not all.
    void breakStream() {
        closeAfterM = true;
        refusedM = true;
        countStream();
        workerM.counts().requestEnded(RequestOutcome::REFUSED);
        note(400, outputM.size());
        ended();
    }

    void countStream() {
        BodySink::Counts const counts = stepM.sink->takeCounts();
        workerM.counts().lookedUp(counts.found, counts.notFound);
    }

    void endStream() {
        std::size_t const begun = chunkBegin();
        stepM.sink->end(outputM);
        chunkEnd(begun);
        if (!parserM->isHttp10())
            outputM += "0\r\n\r\n";
        countStream();
        workerM.counts().requestEnded(RequestOutcome::ANSWERED);
        note(200, outputM.size());
        ended();
    }

    void requestCame() {
        if (stepM.kind == Step::BODY) {
            if (streamBegunM)
                return endStream();
            Step next = stepM.sink->end(outputM);
            next.route = stepM.route;
            next.headers = std::move(stepM.headers);
            next.client = std::move(stepM.client);
            stepM = std::move(next);
        }
        if (stepM.kind == Step::COMMAND)
            return command();
        if (stepM.kind == Step::WORK)
            return work();
        respond(stepM.response);
    }

    // --- what others do: the answer comes later, and is dropped when nobody waits for it any more ---

    auto deliverer() {
        phase(Phase::COMMAND, commandTimeCM);
        commandedM = true;
        return [weak = this->weak_from_this(), &context = workerM.context(), turn = ++turnM,
                held = stepM.held](std::function<Response()> make) {
            // Whoever has the answer only hands it over.
            asio::post(context, [weak, turn, held, make = std::move(make)] {
                auto const self = weak.lock();
                if (!self || self->turnM != turn || !self->commandedM)
                    return;
                self->commandedM = false;
                self->guarded([&self, &make] {
                    self->answer(make());
                    if (self->writingM) // then whoever ends that goes on
                        return;
                    self->processInput();
                    self->afterProcessing();
                });
            });
        };
    }

    void refuseCommand() {
        commandedM = false;
        answer(problem(503, "too many requests of this kind are waiting, or the daemon stops"));
    }

    void command() {
        auto const taken =
            workerM.common().parts.commands.post(stepM.asksOnly ? CommandPost::QUESTION : CommandPost::COMMAND,
                                                 stepM.command, [deliver = deliverer()](std::string line) {
                                                     deliver([line = std::move(line)] { return Api::answered(line); });
                                                 });
        if (!taken)
            refuseCommand();
    }

    void work() {
        auto const taken = workerM.common().librarian.post([deliver = deliverer(), work = std::move(stepM.work)] {
            Response response;
            try {
                response = work();
            } catch (std::exception const& error) {
                response = problem(503, error.what());
            }
            deliver([response = std::move(response)] { return response; });
        });
        if (!taken)
            refuseCommand();
    }

    void answer(Response const& response) {
        if (!writingM)
            phase(Phase::HEADER, headerTimeCM);
        respond(response);
    }

    // --- answering ---

    void refuse(unsigned int status, char const* detail) {
        closeAfterM = true;
        refusedM = true;
        stepM.route = "-";
        respond(problem(status, detail));
    }

    static RequestOutcome outcomeOf(unsigned int status) {
        if (status < 400)
            return RequestOutcome::ANSWERED;
        if (status == 401 || status == 403)
            return RequestOutcome::DENIED;
        return status < 500 ? RequestOutcome::REFUSED : RequestOutcome::FAILED;
    }

    void respond(Response const& response) {
        appendHead(response, response.body.size());
        if (!isHeadM && response.status != 304)
            outputM += response.body;
        // How long a command takes is told with the loads; beside look-ups it would mean nothing.
        if (stepM.kind == Step::COMMAND)
            workerM.counts().requestEnded(outcomeOf(response.status));
        else
            workerM.counts().requestEnded(outcomeOf(response.status), Clock::now() - begunM);
        note(response.status, response.body.size());
        ended();
    }

    void ended() {
        answeredM = true;
        if (!closeAfterM && parserM && !parserM->keepsAlive())
            closeAfterM = true;
        parserM.reset();
        stepM = Step();
        isHeadM = false;
        emptyLineM = false;
        streamBegunM = false;
        if (!writingM)
            phase(Phase::IDLE, idleTime());
    }

    seconds idleTime() const { return seconds(workerM.common().shared.settings().idleSeconds); }

    // Without a length the body comes in chunks, or to HTTP/1.0 until the connection ends.
    void appendHead(Response const& response, std::optional<std::size_t> length) {
        if (!length && parserM && parserM->isHttp10())
            closeAfterM = true;
        std::array<char, 24> digits{};
        auto const number = [&digits](std::size_t value) {
            return std::string_view(
                digits.data(),
                static_cast<std::size_t>(std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr -
                                         digits.data()));
        };
        outputM.append("HTTP/1.1 ").append(number(response.status)).append(" ").append(reasonOf(response.status));
        outputM.append("\r\n").append(workerM.date());
        if (response.status != 304 && response.status != 204)
            outputM.append("Content-Type: ").append(response.type).append("\r\n");
        if (length && response.status != 304 && response.status != 204)
            outputM.append("Content-Length: ").append(number(*length)).append("\r\n");
        else if (!length && parserM && !parserM->isHttp10())
            outputM.append("Transfer-Encoding: chunked\r\n");
        if (!response.entityTag.empty())
            outputM.append("ETag: ").append(response.entityTag).append("\r\n");
        outputM.append("Cache-Control: ")
            .append(response.cacheControl.empty() ? std::string_view("no-store") : response.cacheControl)
            .append("\r\nX-Content-Type-Options: nosniff\r\n");
        outputM.append(response.headers).append(stepM.headers);
        if (closeAfterM || workerM.isStopping() || !parserM || !parserM->keepsAlive()) {
            closeAfterM = true;
            outputM.append("Connection: close\r\n");
        } else if (parserM->isHttp10()) {
            outputM.append("Connection: keep-alive\r\n");
        }
        outputM.append("\r\n");
    }

    void note(unsigned int status, std::size_t bytes) {
        AccessLog& log = workerM.common().accessLog;
        if (!log.isOn())
            return;
        log.note({addressM, parserM ? parserM->method() : std::string_view("-"), stepM.route,
                  parserM ? parserM->target() : std::string_view(), stepM.client, status, bytes,
                  std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begunM)});
    }

    // --- writing ---

    void flush() {
        if (writingM || phaseM == Phase::CLOSED)
            return;
        if constexpr (!encryptedCM) {
            // Mostly the system takes all of it at once.
            error_code error;
            std::size_t const count = socketM.write_some(asio::buffer(outputM), error);
            if (!error && count == outputM.size()) {
                outputM.clear();
                return written();
            }
            if (error && error != asio::error::would_block && error != asio::error::try_again)
                return close();
            outputM.erase(0, count);
        }
        phase(Phase::WRITING, writeTimeCM);
        writingM = true;
        writtenM.swap(outputM);
        outputM.clear();
        asio::async_write(socketM, asio::buffer(writtenM),
                          [self = this->shared_from_this()](error_code error, std::size_t /*count*/) {
                              self->writingM = false;
                              if (error || self->phaseM == Phase::CLOSED)
                                  return self->close();
                              self->resume();
                              if (!self->outputM.empty()) // the answer of a command, meanwhile
                                  return self->flush();
                              self->written();
                          });
    }

    void resume() {
        if (commandedM)
            phase(Phase::COMMAND, commandTimeCM);
        else if (parserM)
            parserM->hasHeader() ? phase(Phase::BODY, bodyTimeCM) : phase(Phase::HEADER, headerTimeCM);
        else
            phase(Phase::IDLE, idleTime());
    }

    void written() {
        if (refusedM || (closeAfterM && !parserM && phaseM != Phase::COMMAND))
            return finish();
        if (phaseM == Phase::COMMAND)
            return;
        if (!inputM.empty()) {
            // Not from here: answers that are written at once would make this ever deeper.
            asio::post(workerM.context(), [self = this->shared_from_this()] {
                if (self->phaseM == Phase::CLOSED)
                    return;
                if (self->parserM == std::nullopt)
                    self->phase(Phase::HEADER, headerTimeCM);
                self->guarded([&self] {
                    self->processInput();
                    if (!self->parserM && self->inputM.empty() && self->outputM.empty() && !self->closeAfterM)
                        return self->awaitInput(Phase::IDLE);
                    self->afterProcessing();
                });
            });
            return;
        }
        awaitInput(parserM ? phaseM : Phase::IDLE);
    }

    // --- ending ---

    // The last answer must arrive: what the client still sends is read for a moment, else it would meet a reset.
    void finish() {
        if (phaseM == Phase::CLOSED || phaseM == Phase::LINGER)
            return;
        phase(Phase::LINGER, lingerTimeCM);
        if constexpr (encryptedCM) {
            socketM.async_shutdown([self = this->shared_from_this()](error_code error) {
                if (!error || self->phaseM == Phase::CLOSED)
                    return self->close();
                // It still sends, and what that is need not be deciphered any more.
                self->plain().shutdown(PlainSocket::shutdown_send, error);
                self->passOver();
            });
        } else {
            error_code ignored;
            socketM.shutdown(PlainSocket::shutdown_send, ignored);
            readOn();
        }
    }

    // What comes, until it ends or the time is over.
    void passOver() {
        plain().async_wait(PlainSocket::wait_read, [self = this->shared_from_this()](error_code error) {
            if (!error)
                self->plain().read_some(asio::buffer(self->workerM.scratch()), error);
            if (error && error != asio::error::would_block && error != asio::error::interrupted)
                return self->close();
            self->passOver();
        });
    }

    void close() {
        if (phaseM == Phase::CLOSED)
            return;
        phaseM = Phase::CLOSED;
        ++turnM;
        error_code ignored;
        plain().close(ignored);
        workerM.remove(placeM);
    }

    Worker& workerM;
    std::string const addressM;
    std::shared_ptr<asio::ssl::context> tlsM; // outlives the socket
    Socket socketM;
    Connections::iterator placeM;
    Phase phaseM = Phase::HANDSHAKE;
    Clock::time_point deadlineM;
    Clock::time_point begunM;
    std::string inputM;   // that was not taken yet
    std::string outputM;  // to be written
    std::string writtenM; // being written
    std::unique_ptr<std::array<char, 4096>> receivedM;
    std::optional<RequestParser> parserM; // of the request under way
    Step stepM;
    std::string certificateM;
    std::uint64_t turnM = 0; // commands, counted
    std::size_t blockM = 0;  // bytes of the body since its deadline was set
    bool hasCertificateM = false;
    bool isHeadM = false;
    bool emptyLineM = false; // was passed over before the request
    bool streamBegunM = false;
    bool sinkEndedM = false;
    bool refusedM = false;
    bool commandedM = false;
    bool writingM = false;
    bool closeAfterM = false;
    bool readingM = false;
    bool answeredM = false; // at least once
};

Worker::Worker(Common& common, std::vector<std::pair<int, bool>> const& listeners)
    : commonM(common), countsM(common.parts.metrics, FrontKind::HTTP), apiM(common.parts, common.shared) {
    for (auto const& [descriptor, encrypted] : listeners) {
        int const own = fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
        if (own < 0)
            throw HostError("a listening socket cannot be shared: " +
                            std::string(std::strerror(errno))); // NOLINT(*-mt-unsafe)
        listenersM.emplace_back(contextM, own, encrypted);
    }
    for (Listener& listener : listenersM)
        awaitConnection(listener);
    awaitTick();
    threadM = std::thread([this] { run(); });
}

// What memory does not suffice for ends its connection at the most, never the thread.
void Worker::run() {
    blockSignals();
    for (;;) {
        try {
            contextM.run();
            return endM.set_value();
        } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): the next event, then
        }
    }
}

void Worker::awaitConnection(Listener& listener) {
    listener.socket.async_wait(asio::posix::stream_descriptor::wait_read, [this, &listener](error_code error) {
        if (error || stoppingM)
            return;
        accept(listener);
    });
}

void Worker::accept(Listener& listener) {
    constexpr int mostAtOnce = 16;
    for (int i = 0; i < mostAtOnce; ++i) {
        sockaddr_storage peer = {};
        socklen_t length = sizeof peer;
        int const descriptor = accept4(listener.socket.native_handle(), reinterpret_cast<sockaddr*>(&peer), &length,
                                       SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor >= 0) {
            try {
                take(descriptor, peer, listener.isEncrypted);
            } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): for want of memory: others come still
            }
            continue;
        }
        // Without a descriptor the connection stays in the queue: it is not asked for again at once.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            listener.again.expires_after(milliseconds(200));
            listener.again.async_wait([this, &listener](error_code error) {
                if (!error && !stoppingM)
                    accept(listener);
            });
            return;
        }
        break;
    }
    awaitConnection(listener);
}

void Worker::take(int descriptor, sockaddr_storage const& peer, bool encrypted) {
    constexpr std::string_view refusal = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nRetry-After: 5\r\n"
                                         "Connection: close\r\n\r\n";
    // Whatever memory does not suffice for: the socket closes, and what was entered is left.
    std::optional<PlainSocket> owner;
    try {
        owner.emplace(contextM).assign(asio::generic::stream_protocol(peer.ss_family, 0), descriptor);
    } catch (std::exception const&) {
        ::close(descriptor);
        throw;
    }
    PlainSocket& socket = *owner;
    std::string const address = addressOf(peer);
    if (auto const reason = commonM.limits.enter(address)) {
        countsM.connectionRefused(*reason);
        if (!encrypted)
            (void)send(descriptor, refusal.data(), refusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return;
    }
    if (peer.ss_family != AF_UNIX) {
        int const on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    // On this machine nothing is on its way, so a large buffer only takes what is written out of the processor's cache:
    // streams are a quarter faster without. To others the system finds out what the way needs.
    if (isLoopback(peer)) {
        int const bytes = 256 * 1024;
        setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    }
    error_code ignored;
    socket.non_blocking(true, ignored);
    auto const made = [this, &address](auto make) {
        try {
            return make();
        } catch (std::exception const&) {
            commonM.limits.leave(address);
            throw;
        }
    };
    auto const begin = [this](auto connection, std::shared_ptr<asio::ssl::context> tls) {
        auto const place = connectionsM.insert(connectionsM.end(), connection);
        connection->start(place, std::move(tls));
    };
    if (!encrypted)
        return begin(
            made([&] { return std::make_shared<SocketConnection<PlainSocket>>(*this, address, std::move(socket)); }),
            nullptr);
    std::shared_ptr<asio::ssl::context> const tls = commonM.tlsContext();
    begin(made([&] { return std::make_shared<SocketConnection<TlsSocket>>(*this, address, std::move(socket), *tls); }),
          tls);
}

void Worker::remove(Connections::iterator place) {
    // Whoever calls holds the connection still.
    connectionsM.erase(place);
    endIfDone();
}

void Worker::awaitTick() {
    timerM.expires_after(tickCM);
    timerM.async_wait([this](error_code error) {
        if (error || cutM)
            return;
        nowM = Clock::now();
        for (auto each = connectionsM.begin(); each != connectionsM.end();) {
            std::shared_ptr<Connection> const connection = *each++;
            try {
                connection->tick(nowM);
            } catch (std::exception const&) { // for want of memory: the others have their deadlines still
                connection->cut();
            }
        }
        if (!stoppingM || !connectionsM.empty())
            awaitTick();
    });
}

std::string_view Worker::date() {
    nowM = Clock::now();
    std::time_t const second = std::time(nullptr);
    if (second != dateSecondM) {
        std::array<char, 64> text{};
        tm parts = {};
        gmtime_r(&second, &parts);
        // English, whatever the locale: the program sets none.
        std::size_t const length = strftime(text.data(), text.size(), "Date: %a, %d %b %Y %H:%M:%S GMT\r\n", &parts);
        dateM.assign(text.data(), length);
        dateSecondM = second;
    }
    return dateM;
}

void Worker::beginStop() {
    asio::post(contextM, [this] {
        stoppingM = true;
        error_code ignored;
        for (Listener& listener : listenersM) {
            listener.socket.close(ignored);
            listener.again.cancel();
        }
        for (auto each = connectionsM.begin(); each != connectionsM.end();) {
            std::shared_ptr<Connection> const connection = *each++;
            connection->beginStop();
        }
        endIfDone();
    });
}

void Worker::dismiss() {
    asio::post(contextM, [this] {
        for (auto each = connectionsM.begin(); each != connectionsM.end();) {
            std::shared_ptr<Connection> const connection = *each++;
            connection->dismiss();
        }
    });
}

void Worker::endIfDone() {
    if (stoppingM && connectionsM.empty())
        timerM.cancel();
}

void Worker::cut() {
    asio::post(contextM, [this] {
        cutM = true;
        while (!connectionsM.empty()) {
            std::shared_ptr<Connection> const connection = connectionsM.front();
            connection->cut();
        }
        timerM.cancel();
    });
}

// --- the front itself ---

using Tls = asio::ssl::context;

// Only HTTP/1.1 is spoken; clients that negotiate are told so.
int chooseProtocol(SSL* /*connection*/, unsigned char const** out, unsigned char* outLength, unsigned char const* in,
                   unsigned int inLength, void* /*nothing*/) {
    static constexpr unsigned char http[] = "\x08http/1.1";
    unsigned char* chosen = nullptr;
    if (SSL_select_next_proto(&chosen, outLength, http, sizeof http - 1, in, inLength) != OPENSSL_NPN_NEGOTIATED)
        return SSL_TLSEXT_ERR_NOACK;
    *out = chosen;
    return SSL_TLSEXT_ERR_OK;
}

[[noreturn]] void failTls(std::filesystem::path const& file, error_code const& error) {
    throw HostError("[http] " + visible(file.native()) + ": " + error.message());
}

// Asked for the pass phrase of an encrypted key: by itself OpenSSL would read it from the terminal.
int refusePassPhrase(char* /*out*/, int /*size*/, int /*isWriting*/, void* isEncrypted) {
    if (isEncrypted != nullptr)
        *static_cast<bool*>(isEncrypted) = true;
    return -1;
}

std::shared_ptr<Tls> makeTls(HttpSettings const& settings) {
    if (!settings.hasTls())
        return nullptr;
    auto tls = std::make_shared<Tls>(Tls::tls_server);
    tls->set_options(Tls::default_workarounds | Tls::no_sslv2 | Tls::no_sslv3 | Tls::no_tlsv1 | Tls::no_tlsv1_1);
    SSL_CTX_set_options(tls->native_handle(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_mode(tls->native_handle(), SSL_MODE_RELEASE_BUFFERS);
    // OpenSSL would wait at a pipe.
    for (std::filesystem::path const& file : {settings.certificate, settings.key, settings.clientAuthorities})
        if (!file.empty())
            openRegularFile(file);
    error_code error;
    if (tls->use_certificate_chain_file(settings.certificate.native(), error); error)
        failTls(settings.certificate, error);
    bool isEncrypted = false;
    SSL_CTX_set_default_passwd_cb_userdata(tls->native_handle(), &isEncrypted);
    SSL_CTX_set_default_passwd_cb(tls->native_handle(), refusePassPhrase);
    tls->use_private_key_file(settings.key.native(), Tls::pem, error);
    SSL_CTX_set_default_passwd_cb_userdata(tls->native_handle(), nullptr);
    if (isEncrypted)
        throw HostError("[http] the key " + visible(settings.key.native()) +
                        " has a pass phrase, which nobody can give");
    if (error)
        failTls(settings.key, error);
    if (SSL_CTX_check_private_key(tls->native_handle()) != 1)
        throw HostError("[http] the key " + visible(settings.key.native()) + " is not the certificate's");
    SSL_CTX_set_alpn_select_cb(tls->native_handle(), chooseProtocol, nullptr);
    if (!settings.clientAuthorities.empty()) {
        if (tls->load_verify_file(settings.clientAuthorities.native(), error); error)
            failTls(settings.clientAuthorities, error);
        if (STACK_OF(X509_NAME)* const names = SSL_load_client_CA_file(settings.clientAuthorities.c_str()))
            SSL_CTX_set_client_CA_list(tls->native_handle(), names);
        unsigned char const session[] = "nphost";
        SSL_CTX_set_session_id_context(tls->native_handle(), session, sizeof session - 1);
        // Who shows none may have a token.
        tls->set_verify_mode(asio::ssl::verify_peer);
    }
    return tls;
}

FileDescriptor listenAt(std::string const& text) {
    SocketAddress address;
    if (!readSocketAddress(text, address))
        throw HostError("[http] '" + shortened(text) +
                        "' is no place to listen on: ADDRESS:PORT, [ADDRESS]:PORT or unix:FILE");
    try {
        FileDescriptor made = openAt(address, SOCK_STREAM);
        if (::listen(made.get(), SOMAXCONN) != 0)
            throw HostError("cannot listen on " + placeOf(address) + ": " + std::system_category().message(errno));
        return made;
    } catch (HostError const& error) {
        throw HostError(std::string("[http] ") + error.what());
    }
}

std::string randomName() {
    std::array<unsigned char, 4> bytes{};
    RAND_bytes(bytes.data(), bytes.size());
    std::string text;
    for (unsigned char const byte : bytes)
        text.append({"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]});
    return text;
}

class HttpFront : public Front {
  public:
    explicit HttpFront(FrontParts const& parts)
        : commonM{parts,
                  HttpShared(parts.configuration.of<HttpSettings>(), sha256, randomName()),
                  ConnectionLimits(parts.configuration.of<HttpSettings>().maxConnections,
                                   parts.configuration.of<HttpSettings>().maxConnectionsPerAddress),
                  AccessLog(parts.configuration.of<HttpSettings>().accessLog,
                            parts.configuration.of<HttpSettings>().logNumbers),
                  {},
                  {},
                  {}} {
        checkSettings();
        if (!parts.deltaFolders.empty())
            DeltaUpload::removeLeftovers(parts.deltaFolders.front());
        commonM.tls = makeTls(settings());
        raiseDescriptorLimit();
        open();
        unsigned int const processors = std::max(1U, std::thread::hardware_concurrency());
        auto const threads = static_cast<std::size_t>(settings().threads.value_or(std::min(processors, mostThreadsCM)));
        std::vector<std::pair<int, bool>> listeners;
        for (FileDescriptor const& each : listenersM)
            listeners.emplace_back(each.get(), isEncrypted(each.get()));
        for (std::unique_ptr<ListeningSocket> const& each : unixM)
            listeners.emplace_back(each->descriptor(), false);
        try {
            for (std::size_t i = 0; i < threads; ++i)
                workersM.push_back(std::make_unique<Worker>(commonM, listeners));
            for (auto const& [descriptor, encrypted] : listeners)
                reportOwn("INF_HOST_HTTP", BAS::Status::NORMAL,
                          {BAS::String((encrypted ? "https://" : "http://") + placeOf(descriptor))});
        } catch (...) { // those that have begun already would be waited for without end
            stop();
            throw;
        }
    }
    ~HttpFront() override { stop(); }

    bool reread() noexcept override {
        bool fine = attempt([this] { commonM.shared.rereadTokens(); });
        fine = attempt([this] {
                   std::shared_ptr<Tls> fresh = makeTls(settings());
                   BAS::MutexGuard const guard(commonM.tlsLock);
                   commonM.tls.swap(fresh);
               }) &&
               fine;
        return attempt([this] { commonM.accessLog.reopen(); }) && fine;
    }

    void beginStop() noexcept override {
        attempt([this] {
            for (auto const& worker : workersM)
                worker->beginStop();
        });
    }

    void stop() noexcept override {
        beginStop();
        // What the daemon has answered is there already; nothing more comes.
        for (auto const& worker : workersM)
            attempt([&worker] { worker->dismiss(); });
        Clock::time_point const end = Clock::now() + graceCM;
        for (auto const& worker : workersM)
            if (!worker->endsBy(end))
                attempt([&worker] { worker->cut(); });
        attempt([this] { commonM.librarian.stop(); }); // which hands its answers to the workers
        workersM.clear();
    }

  private:
    HttpSettings const& settings() const { return commonM.shared.settings(); }

    template <class Action>
    bool attempt(Action&& action) noexcept {
        try {
            action();
            return true;
        } catch (std::exception const& error) {
            try {
                reportOwn("ERR_HOST_HTTP", BAS::Status::MAJOR, {BAS::String(error.what())});
            } catch (...) { // NOLINT(bugprone-empty-catch): not even the report could be made
            }
        }
        return false;
    }

    void checkSettings() const {
        if (settings().certificate.empty() != settings().key.empty())
            throw HostError("[http] 'certificate' and 'key' must come together");
        if (!settings().clientAuthorities.empty() && !settings().hasTls())
            throw HostError("[http] 'clientAuthorities' needs 'certificate' and 'key'");
        if (settings().listen.empty() && commonM.parts.sockets.empty())
            throw HostError("[http] says nowhere to listen: 'listen', or a socket named http from the service manager");
    }

    bool isEncrypted(int descriptor) const {
        return settings().hasTls() && addressOfSocket(descriptor).bytes.ss_family != AF_UNIX;
    }

    // What anybody in the network could reach must be encrypted, and ask who they are.
    void checkPlace(int descriptor) const {
        sockaddr_storage const address = addressOfSocket(descriptor).bytes;
        if (address.ss_family == AF_UNIX || isLoopback(address))
            return;
        if (!settings().hasTls() || !settings().hasAuthentication())
            throw HostError("[http] " + placeOf(descriptor) +
                            " is not loopback: it needs 'certificate' and 'key', and 'tokens' or 'clientAuthorities'");
    }

    void open() {
        for (PassedSocket const& passed : commonM.parts.sockets) {
            listenersM.emplace_back(passed.descriptor);
            int const flags = fcntl(passed.descriptor, F_GETFL);
            fcntl(passed.descriptor, F_SETFL, flags | O_NONBLOCK);
            checkPlace(passed.descriptor);
        }
        constexpr std::string_view unixPrefix = "unix:";
        for (std::string const& place : settings().listen) {
            if (place.starts_with(unixPrefix)) {
                unixM.push_back(std::make_unique<ListeningSocket>(place.substr(unixPrefix.size())));
                continue;
            }
            listenersM.push_back(listenAt(place));
            checkPlace(listenersM.back().get());
        }
    }

    Common commonM;
    std::vector<FileDescriptor> listenersM;
    std::vector<std::unique_ptr<ListeningSocket>> unixM;
    std::vector<std::unique_ptr<Worker>> workersM; // last: they use all else
};

Front* makeFront(FrontParts const& parts, std::string& reason) {
    try {
        return new HttpFront(parts);
    } catch (std::bad_alloc const&) {
        reason = "out of memory";
    } catch (std::system_error const& error) { // of std::thread
        reason = std::string("[http] memory or the limit of threads does not suffice for a thread: ") + error.what();
    } catch (std::exception const& error) {
        reason = error.what();
    }
    return nullptr;
}

constexpr FrontTable tableCM = {
    .version = NP_VERSION, .make = makeFront, .destroy = [](Front* front) { delete front; }};

} // namespace

} // namespace nphost

extern "C" __attribute__((visibility("default"))) nphost::FrontTable const* NumberPortabilityFront() {
    return &nphost::tableCM;
}
