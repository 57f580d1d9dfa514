#include "host/daemon/CtlCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/Output.h"
#include "host/base/Text.h"
#include "host/config/CommonOptions.h"
#include "host/config/DaemonFiles.h"
#include "host/daemon/ControlProtocol.h"
#include "host/fields/FieldOptions.h"
#include "host/fields/NumberText.h"
#include "host/fields/Numbers.h"
#include "host/log/LogReport.h"
#include "host/net/UnixSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace nphost {

namespace {

using Json = nlohmann::json;

constexpr char const* ctlHelpCM =
    R"('nphost ctl COMMAND --help' explains a command. The daemon is found by --socket or by
the key 'socket' that --config names.

Examples:
  nphost ctl --config /etc/numberportability/nphost.toml status
  nphost ctl --socket /run/numberportability/nphost.socket reload --wait

Exit status:
  0  fine: found, usable, carried out
  1  not found, not usable, failed or not handled
  2  a usage error, no daemon, or a refused request; one line on standard error says why)";

struct CtlOptions {
    std::filesystem::path socket;        // or
    std::filesystem::path configuration; // which names it
    Sections sections;                   // that it may have
    bool json = false;

    std::string command; // its name
    std::vector<std::string> numbers;
    std::optional<std::string> at;
    std::optional<unsigned int> method;
    bool normalise = false;
    bool ported = false;
    bool noReuse = false;
    bool force = false;
    bool follow = false;
    std::optional<bool> wait; // none: when standard output is a terminal
    std::string file;
    std::vector<std::string> keys; // KEY=VALUE
};

// Well within what the daemon takes, a line of 64 KiB and 1000 numbers: in JSON a number may grow by escapes.
constexpr std::size_t numbersARequestCM = 500;
constexpr std::size_t numberBytesARequestCM = 32UL * 1024;

// The connection to the daemon.
class Conversation {
  public:
    explicit Conversation(std::filesystem::path const& socket) : descriptorM(connectTo(socket)) {}

    // The answer to a request; throws when the daemon refuses it.
    Json ask(Json request) { return *answerTo(std::move(request), false); }
    // The same; none when the answer would be too long.
    std::optional<Json> askAtOnce(Json request) { return answerTo(std::move(request), true); }

    // One line of the daemon, however many pieces it comes in. What follows it, reports to a follower, stays for the
    // next call.
    Json next() {
        std::size_t end = 0;
        while ((end = inputM.find('\n')) == std::string::npos)
            if (!receive())
                throw HostError("the daemon ended the connection");
        std::string const line = inputM.substr(0, end);
        inputM.erase(0, end + 1);
        try {
            return Json::parse(line);
        } catch (Json::exception const&) {
            throw HostError("the daemon's answer cannot be understood: '" + shortened(line) + "'");
        }
    }

  private:
    std::optional<Json> answerTo(Json request, bool mayBeTooLong) {
        sendAll(lineOf(std::move(request)));
        Json answer = next();
        if (answer.value("ok", false))
            return answer;
        if (mayBeTooLong && answer.value("tooLong", false))
            return std::nullopt;
        throw HostError("the daemon refuses: " + answer.value("error", std::string("for no reason")));
    }

    void sendAll(std::string_view text) const {
        while (!text.empty()) {
            // Without SIGPIPE: a daemon that turns this client away closes at once, and its reason is still to be read.
            ssize_t const count = ::send(descriptorM.get(), text.data(), text.size(), MSG_NOSIGNAL);
            if (count >= 0)
                text.remove_prefix(static_cast<std::size_t>(count));
            else if (errno == EPIPE || errno == ECONNRESET)
                return; // what it has said before it went is still to be read
            else if (errno != EINTR)
                throw HostError("the daemon cannot be asked: " + std::system_category().message(errno));
        }
    }

    bool receive() {
        std::array<char, 16UL * 1024> block;
        for (;;) {
            // An error is an end like any other: the line that is awaited does not come.
            ssize_t const count = recv(descriptorM.get(), block.data(), block.size(), 0);
            if (count < 0 && errno == EINTR)
                continue;
            if (count > 0)
                inputM.append(block.data(), static_cast<std::size_t>(count));
            return count > 0;
        }
    }

    FileDescriptor descriptorM;
    std::string inputM;
};

// What comes from the daemon may hold anything that a data file holds: it is made visible before it is shown.
std::string orDash(Json const& text) {
    return text.is_string() ? visible(text.get<std::string>()) : "-";
}

// "2026-01-31 12:00:00" from 14 digits.
std::string readable(Json const& digits) {
    BAS::DateTime const at = parseInstant(digits.is_string() ? digits.get<std::string>() : std::string());
    return at.isValid() ? nphost::readable(at) : "-";
}

std::string seconds(Json const& value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f s", value.get<double>());
    return text.data();
}

std::string bytes(Json const& value) {
    // Null: the file is not there.
    if (!value.is_number())
        return "-";
    return std::to_string(value.get<std::uint64_t>()) + " bytes";
}

// One ctl command: makes the request, shows the answer, knows the exit status.
class Ctl {
  public:
    Ctl(CtlOptions const& options, std::filesystem::path const& socket)
        : optionsM(options), daemonM(socket), outM(STDOUT_FILENO) {}

    // The status counts only when the answer has been written: a failure to flush becomes status 2.
    int run(int (Ctl::*command)()) {
        int const status = (this->*command)();
        outM.flush();
        return status;
    }

    int reload() { return request({{"command", "reload"}, {"reuse", !optionsM.noReuse}, {"force", optionsM.force}}); }

    int delta() {
        return request({{"command", "delta"}, {"file", absolute(optionsM.file)}, {"force", optionsM.force}});
    }

    int print() {
        Json asked = {{"command", "print"}};
        if (!optionsM.file.empty())
            asked["file"] = absolute(optionsM.file);
        return request(std::move(asked));
    }

    // Scripts ask for its exit status, which is that of `usable` and of nothing else that is told.
    int status() {
        Json const answer = daemonM.ask({{"command", "status"}});
        int const result = answer.at("usable").get<bool>() ? FINE : NOT_FOUND;
        if (shownRaw(answer))
            return result;
        field("Usable:", answer.at("usable").get<bool>() ? "yes" : "no: the data file cannot be read");
        field("Loaded since:", orDash(answer.at("loadedSince")));
        field("Records:", answer.at("records").dump());
        // Keys that are asked for with a default are not in the answers of older daemons.
        if (answer.value("unsaved", false))
            field("NOT SAVED:", "records of a delta are served, but are not in the data file: repeat the delta");
        field("Numbers:", answer.at("numbers").dump());
        field("Search method:", orDash(answer.at("searchMethod")));
        dataFile(answer.at("dataFile"));
        networkTable(answer.value("networkTable", Json()));
        lastLoad(answer.at("lastLoad"));
        refusedSince(answer.value("guard", Json()));
        if (answer.at("loading").get<bool>())
            progress("Loading now:", answer.at("progress"));
        guard(answer.value("guard", Json()));
        field("Look-ups:", answer.at("lookUps").dump());
        if (auto const lost = answer.value("reportsLost", 0UL); lost > 0)
            field("Log:", std::to_string(lost) + " reports could not be written and are lost");
        field("Memory:", std::to_string(answer.at("memoryBytes").get<std::uint64_t>() / 1024) + " KiB");
        field("Process:", answer.at("process").dump());
        return result;
    }

    int lookup() {
        // Before anything is asked: half of the answers and then an error would help nobody.
        for (std::string const& number : optionsM.numbers)
            if (!optionsM.normalise && !hasDigit(number)) // else the daemon knows
                throw HostError("'" + shortened(number) + "' is not a number");
        Json request = question("lookup");
        std::size_t most = numbersARequestCM;
        bool allFound = true;
        for (std::size_t next = 0; next < optionsM.numbers.size();) {
            Json numbers = numbersFrom(next, most);
            std::size_t const count = numbers.size();
            request["numbers"] = std::move(numbers);
            // One number cannot be halved: an answer that is too long is an error then.
            std::optional<Json> const answer = count > 1 ? daemonM.askAtOnce(request) : daemonM.ask(request);
            if (!answer) {
                // For all that follow, too: long names of networks seldom come alone.
                most = count / 2;
                continue;
            }
            next += count;
            request["at"] = answer->at("at"); // one instant for all, also when it is now
            allFound = showAnswers(*answer) && allFound;
        }
        return allFound ? FINE : NOT_FOUND;
    }

    int explain() {
        Json request = question("explain");
        request["number"] = checked(optionsM.numbers.front());
        Json const answer = daemonM.ask(std::move(request));
        // The exit status is that of a look-up: by the method that is configured.
        auto const configured = answer.at("configured").get<std::string>();
        int const result = answer.at("methods").at(configured).at("found").get<bool>() ? FINE : NOT_FOUND;
        if (shownRaw(answer))
            return result;
        networksM = answer.value("networks", Json::object());
        field("Number:", orDash(answer.at("number")));
        field("At:", readable(answer.at("at")));
        if (answer.contains("range")) // an older daemon's answer has none
            ported(answer.at("methods").at(configured).at("ported"), answer.at("range"));
        histories(answer.at("prefixes"), answer.at("at").get<std::string>());
        line("\nChosen by each search method:");
        for (char const* const method : {"best", "exact", "shortest"})
            choice(method, answer.at("methods").at(method), method == configured);
        nextChange(answer.at("nextChange"), configured);
        return result;
    }

    int update() {
        Json keys = Json::object();
        for (std::string const& key : optionsM.keys) {
            std::size_t const equals = key.find('=');
            if (equals == std::string::npos || equals == 0)
                throw HostError("'" + shortened(key) + "' is not KEY=VALUE");
            std::string const name = checked(key.substr(0, equals));
            std::string value = checked(key.substr(equals + 1));
            // An empty value names no file: the daemon knows what it means.
            bool const isFile = (name == "AdditionalNumPortData" || name == "PrintData") && !value.empty();
            // The plug-in would take one of the two, and nobody knows which.
            if (!keys.emplace(name, isFile ? absolute(value) : std::move(value)).second)
                throw HostError("the key '" + shortened(name) + "' is given twice");
        }
        Json const answer = daemonM.ask({{"command", "update"}, {"keys", std::move(keys)}, {"force", optionsM.force}});
        if (!shownRaw(answer)) {
            field("Result:", answer.at("result").dump());
            field("Handled:", answer.at("handled").dump());
            for (Json const& report : eachOnce(answer.at("reports")))
                showReport(report);
            leftOut(answer);
            if (Json const check = answer.value("check", Json()); isChecked(check))
                field("Check:", seconds(check.at("seconds")));
        }
        return answer.at("succeeded").get<bool>() ? FINE : NOT_FOUND;
    }

    int probes() {
        Json const answer = daemonM.ask({{"command", "probes"}});
        if (shownRaw(answer))
            return FINE;
        for (Json const& probe : answer.at("probes"))
            field(orDash(probe.at("name")), orDash(probe.at("description")));
        return FINE;
    }

    int log() {
        Json const answer = daemonM.ask({{"command", "log"}, {"follow", optionsM.follow}});
        for (Json const& report : answer.at("reports"))
            showReport(report);
        // Ends with the daemon, or by a signal.
        while (optionsM.follow) {
            outM.flush();
            // Flushed before the wait: whoever reads through a pipe would else get nothing for a long time.
            Json const next = daemonM.next();
            if (next.contains("lost") && shownRaw(next))
                continue;
            if (next.contains("lost"))
                line("... " + next.at("lost").dump() + " reports came faster than they could be shown");
            else
                showReport(next.at("report"));
        }
        return FINE;
    }

  private:
    void line(std::string_view text) {
        outM.append(text);
        outM.append('\n');
    }
    // A label that is longer than the column pushes its value, and keeps one blank.
    void field(std::string label, std::string_view value) {
        constexpr std::size_t width = 18;
        label.resize(std::max(width, label.size() + 1), ' ');
        line(label.append(value));
    }
    // With --json the answer is shown as it came, and nothing else.
    bool shownRaw(Json const& answer) {
        if (optionsM.json)
            line(answer.dump());
        return optionsM.json;
    }

    // The daemon has a folder of its own, and JSON has no bytes that are not UTF-8.
    static std::string absolute(std::string const& file) {
        std::string name = std::filesystem::absolute(file).native(); // not normalised: '..' may follow a link
        return checked(std::move(name));
    }
    static std::string checked(std::string text) {
        if (asUtf8(text) != text)
            throw HostError("'" + shortened(text) + "' is not UTF-8 and cannot be sent");
        return text;
    }

    void progress(char const* label, Json const& far) {
        field(label, far.at("lines").dump() + " lines, " + far.at("bytes").dump() + " of " +
                         far.at("totalBytes").dump() + " bytes");
    }

    void guard(Json const& guarding) {
        if (guarding.is_null())
            return;
        std::string limits;
        for (auto const& [key, value] : guarding.at("limits").items())
            limits += (limits.empty() ? "" : ", ") + key + " = " + value.dump();
        field("Guard:", limits);
        if (Json const& checking = guarding.at("checking"); !checking.is_null())
            progress("  checking now:", checking);
        Json const& refusal = guarding.at("lastRefusal");
        if (refusal.is_null())
            return field("  last refusal:", "none");
        field("  last refusal:", orDash(refusal.at("kind")) + " of " + orDash(refusal.at("file")));
        field("  ended:", orDash(refusal.at("ended")) + " after " + seconds(refusal.at("seconds")));
        for (Json const& reason : refusal.at("reasons"))
            field("  because:", orDash(reason));
    }

    void dataFile(Json const& file) {
        field("Data file:", orDash(file.at("name")));
        field("  size:", bytes(file.at("size")));
        field("  modified:", orDash(file.at("modified")));
        // The answers of older daemons end here.
        if (!file.contains("rewrite"))
            return;
        std::string const way = file.at("rewrite");
        std::string const reason = orDash(file.at("rewriteReason"));
        field("  a delta:", way == "replace"   ? "replaces it"
                            : way == "inPlace" ? "overwrites it in place; a crash in that moment can lose it: " + reason
                                               : "cannot write it: " + reason);
        if (file.at("changed").get<bool>())
            field("  changed:", "since it was loaded or last written; reload it");
        if (Json const& holder = file.at("lockedBy"); !holder.is_null())
            field("  no deltas:", orDash(holder));
    }

    void networkTable(Json const& table) {
        if (table.is_null()) // none is configured
            return;
        field("Networks:", table.at("count").dump() + " in " + orDash(table.at("file")));
        if (Json const& refused = table.at("refused"); !refused.is_null())
            field("  not reread:", orDash(refused) + "; the old table serves");
    }

    void lastLoad(Json const& load) {
        field("Last load:", orDash(load.at("kind")) + (load.at("succeeded").get<bool>() ? ", succeeded" : ", failed"));
        field("  of:", orDash(load.at("file")));
        field("  ended:", orDash(load.at("ended")) + " after " + seconds(load.at("seconds")));
        field("  lines:", load.at("lines").dump() + ", " + load.at("rejectedLines").dump() + " rejected");
        if (auto const count = load.value("numbersWithoutDigits", 0UL); count > 0)
            field("  warning:", std::to_string(count) + " numbers without digits: they answer for all of the country");
    }

    // The guard's refusal of a load after the last one: what is in the file is not what is served.
    void refusedSince(Json const& guarding) {
        Json const refusal = guarding.is_null() ? Json() : guarding.at("lastRefusal");
        if (!refusal.is_null() && !refusal.value("superseded", true))
            field("Refused since:",
                  "a " + orDash(refusal.at("kind")) + ", at " + orDash(refusal.at("ended")) + ": the old data serve");
    }

    // What look-ups and explanations have in common.
    Json question(char const* command) const {
        Json request = {{"command", command}, {"normalise", optionsM.normalise}};
        if (optionsM.at)
            request["at"] = *optionsM.at;
        if (optionsM.method)
            request["method"] = nameOfSearchMethod(*optionsM.method);
        return request;
    }

    // As many of the numbers from that one on as go into a request, and `most` at the most.
    // By bytes as well as by count: one request is one line, and a line has a bound. A single number always goes,
    // however long; the daemon then refuses the line.
    Json numbersFrom(std::size_t next, std::size_t most) const {
        Json numbers = Json::array();
        for (std::size_t size = 0; next < optionsM.numbers.size() && numbers.size() < most; ++next) {
            std::string const& number = optionsM.numbers[next];
            size += number.size();
            if (!numbers.empty() && size >= numberBytesARequestCM)
                break;
            numbers.push_back(checked(number));
        }
        return numbers;
    }

    // Columns as those of 'nphost lookup': what reads the one reads the other.
    bool showAnswers(Json const& answer) {
        bool allFound = true;
        bool const raw = shownRaw(answer);
        auto const column = [](Json const& text) { return text.is_string() ? text.get<std::string>() : "-"; };
        auto const ported = [this](Json const& found) {
            return !optionsM.ported ? "" : found.at("ported").is_null() ? "\t-" : "\t" + found.at("ported").dump();
        };
        for (Json const& found : answer.at("answers")) {
            allFound = allFound && found.at("found").get<bool>();
            if (!raw)
                line(column(found.at("number")) + "\t" + column(answer.at("at")) + "\t" +
                     column(found.at("validFrom")) + "\t" + column(found.at("network")) + ported(found));
        }
        return allFound;
    }

    // With its name, where the daemon's table of networks has one: "D001 (Example Mobile)".
    std::string named(Json const& network) const {
        auto const known = network.is_string() ? networksM.find(network.get<std::string>()) : networksM.end();
        std::string const name = known == networksM.end() ? std::string() : known->value("name", std::string());
        return orDash(network) + (name.empty() ? "" : " (" + visible(name) + ")");
    }

    // Times compare as texts: 14 digits each.
    void histories(Json const& prefixes, std::string const& at) {
        line(prefixes.empty() ? "\nNo prefix of the number is stored." : "\nStored prefixes, longest first:");
        for (Json const& prefix : prefixes) {
            line("  " + prefix.at("key").get<std::string>());
            for (Json const& record : prefix.at("history"))
                line("    " + readable(record.at("validFrom")) + "  " + named(record.at("network")) +
                     (record.at("validFrom").get<std::string>() > at ? "  (still to come)" : ""));
            if (Json const& left = prefix.at("olderLeftOut"); left != 0)
                line("    ... and " + left.dump() + " older ones");
        }
    }

    void ported(Json const& known, Json const& range) {
        field("Ported:", std::string(known.is_null()     ? "not known"
                                     : known.get<bool>() ? "yes"
                                                         : "no") +
                             (range.is_null() ? "; no shorter prefix has a record that has begun"
                                              : "; the range " + orDash(range.at("key")) + " belongs to " +
                                                    named(range.at("network"))));
    }

    void choice(std::string const& method, Json const& chosen, bool configured) {
        std::string label = "  " + method + ":";
        label.resize(12, ' ');
        label += chosen.at("found").get<bool>()
                     ? named(chosen.at("network")) + " since " + readable(chosen.at("validFrom"))
                     : "nothing found";
        line(label + (configured ? "  (as configured)" : ""));
        line("            " + orDash(chosen.at("reason")));
    }

    void nextChange(Json const& next, std::string const& configured) {
        std::string text = "\nNext change (" + configured + "): ";
        if (next.is_null())
            text += "none is stored";
        else
            text += readable(next.at("at")) + ", then " + named(next.at("network")) + " by " + orDash(next.at("key"));
        line(text);
    }

    // A request to a probe.
    int request(Json asked) {
        // A person at a terminal waits for the outcome; a script says what it wants.
        bool const wait = optionsM.wait.value_or(isatty(STDOUT_FILENO) == 1);
        asked["wait"] = wait;
        Json const answer = daemonM.ask(std::move(asked));
        bool const succeeded = !wait || answer.at("succeeded").get<bool>();
        if (!shownRaw(answer)) {
            if (wait)
                outcome(answer);
            else
                line(optionsM.command + ": requested");
        }
        return succeeded ? FINE : NOT_FOUND;
    }

    void outcome(Json const& answer) {
        bool const succeeded = answer.at("succeeded").get<bool>();
        Json const check = answer.value("check", Json());
        // The guard's refusal is a word of its own: nothing was loaded, and nothing has failed.
        bool const refused = !check.is_null() && !check.at("passed").get<bool>();
        for (Json const& report : eachOnce(answer.at("reports"))) {
            auto const identifier = report.at("identifier").get<std::string>();
            if (identifier.starts_with("ERR_HOST_GUARD_"))
                continue; // said below
            // Of a success only what the plug-in counted is of interest; of a failure all that speaks of it.
            bool const counts = succeeded && identifier.starts_with("INF_NUM_");
            if (report.at("severity") != "NORMAL" || counts)
                line((report.at("severity") == "NORMAL" ? "" : orDash(report.at("severity")) + " ") + identifier +
                     " : " + orDash(report.at("text")));
        }
        leftOut(answer);
        if (answer.contains("added"))
            line(answer.at("added").dump() + " records added, " + answer.at("known").dump() + " known already");
        if (refused)
            for (Json const& reason : check.at("reasons"))
                line("refused: " + orDash(reason));
        line(optionsM.command +
             (succeeded ? ": done in "
              : refused ? ": REFUSED after "
                        : ": FAILED after ") +
             seconds(answer.at("seconds")) + (isChecked(check) ? ", the check " + seconds(check.at("seconds")) : ""));
    }

    // A line that is rejected is reported for each of the two trees that a load fills.
    static std::vector<Json> eachOnce(Json const& reports) {
        std::set<std::string> rejected;
        std::vector<Json> shown;
        for (Json const& report : reports)
            if (report.at("severity") != "WARNING" ||
                // Equal arguments are of one line, for its place is among them.
                rejected.insert(report.at("identifier").dump() + report.at("arguments").dump()).second)
                shown.push_back(report);
        return shown;
    }

    // Whether there was a check, not only a guard.
    static bool isChecked(Json const& check) { return !check.is_null() && !check.at("forced").get<bool>(); }

    void leftOut(Json const& answer) {
        if (auto const count = answer.at("reportsLeftOut").get<unsigned long>(); count > 0)
            line("... and " + std::to_string(count) + " more reports, in the daemon's log");
    }

    void showReport(Json const& report) {
        if (shownRaw(report))
            return;
        std::string text;
        // As the daemon's log has it: what reads the one reads the other.
        appendText(text, reportOf(report));
        line(text);
    }

    CtlOptions const& optionsM;
    Conversation daemonM;
    Output outM;
    Json networksM = Json::object(); // of the answer that is shown: what the daemon's table says of them
};

std::filesystem::path socketOf(CtlOptions const& options) {
    if (!options.socket.empty())
        return options.socket;
    if (options.configuration.empty())
        throw HostError("--socket PATH or --config FILE must say where the daemon is");
    std::filesystem::path socket = readConfiguration(options.configuration, options.sections).of<DaemonFiles>().socket;
    if (socket.empty())
        throw HostError(options.configuration.string() + ": there is no key 'socket' in [host]");
    return socket;
}

// An answer of another daemon's version may lack a key that is asked for here: that is one line, too, and no crash.
int ctl(CtlOptions const& options, int (Ctl::*command)()) {
    try {
        return Ctl(options, socketOf(options)).run(command);
    } catch (Json::exception const& error) {
        throw HostError("the daemon's answer lacks something: " + std::string(error.what()));
    }
}

void declareNothing(Arguments& /*arguments*/, CtlOptions& /*options*/) {}

void declareQuestion(Arguments& arguments, CtlOptions& options) {
    arguments.refuseLists("is not a number");
    addInstant(arguments, "--at", options.at);
    arguments.flag("--normalise", options.normalise, "Take numbers as people write them");
}

void declareLookup(Arguments& arguments, CtlOptions& options) {
    arguments.add("NUMBER", "...", options.numbers, "The numbers").required();
    addMethod(arguments, options.method);
    arguments.flag("--ported", options.ported, "Say in a last column whether the numbers are ported");
    declareQuestion(arguments, options);
}

void declareExplain(Arguments& arguments, CtlOptions& options) {
    arguments.add("NUMBER", " ", options.numbers, "The number").required().exactly(1);
    declareQuestion(arguments, options);
}

void declareLog(Arguments& arguments, CtlOptions& options) {
    arguments.flag("--follow", options.follow, "Go on with those to come");
}

// Two options for one value with three states: neither given is the terminal's to say.
void declareWaiting(Arguments& arguments, CtlOptions& options) {
    Option const wait = arguments.flag(
        "--wait", [&options] { options.wait = true; }, "Wait for the outcome and show it; default on a terminal");
    arguments
        .flag(
            "--no-wait", [&options] { options.wait = false; }, "Do not wait; default where there is no terminal")
        .excludes(wait);
}

void declareForce(Arguments& arguments, CtlOptions& options) {
    arguments.flag("--force", options.force, "Load the file whatever the guard would say of it");
}

void declareReload(Arguments& arguments, CtlOptions& options) {
    arguments.flag("--no-reuse", options.noReuse, "Keep the old data when the last line of the file is no record");
    declareWaiting(arguments, options);
    declareForce(arguments, options);
}

void declareDelta(Arguments& arguments, CtlOptions& options) {
    arguments.add("FILE", " ", options.file, "The file").required().named();
    declareWaiting(arguments, options);
    declareForce(arguments, options);
}

void declarePrint(Arguments& arguments, CtlOptions& options) {
    arguments.add("FILE", " ", options.file, "The file to write; default: the daemon's standard output").named();
    declareWaiting(arguments, options);
}

void declareUpdate(Arguments& arguments, CtlOptions& options) {
    arguments.add("KEY=VALUE", "...", options.keys, "Reload, ReuseOnFailure, AdditionalNumPortData, PrintData")
        .required();
    arguments.refuseLists("is not KEY=VALUE");
    declareForce(arguments, options);
}

struct DaemonCommand {
    char const* name;
    char const* description;
    void (*declare)(Arguments&, CtlOptions&);
    int (Ctl::*run)();
};

// One table for help, completion and the calls: a command cannot be in one and not in the other.
constexpr DaemonCommand commandsCM[] = {
    {"status", "Say how the daemon stands", declareNothing, &Ctl::status},
    {"lookup", "Say to which network numbers belonged at an instant", declareLookup, &Ctl::lookup},
    {"explain", "Show what is stored of a number, what is chosen and why", declareExplain, &Ctl::explain},
    {"probes", "List the plug-in's probes", declareNothing, &Ctl::probes},
    {"log", "Show the latest reports of the log", declareLog, &Ctl::log},
    {"reload", "Reload the data file", declareReload, &Ctl::reload},
    {"delta", "Add the records of a file, and rewrite the data file", declareDelta, &Ctl::delta},
    {"print", "Print the records with their heading", declarePrint, &Ctl::print},
    {"update", "Carry out a registry update and show what it reports", declareUpdate, &Ctl::update},
};

void declareCtl(Arguments& arguments, CommonOptions& common) {
    // Held by the functions below, since a command runs only after this one has returned.
    auto const options = std::make_shared<CtlOptions>();
    Option const socket = arguments.add("-s,--socket", "PATH", options->socket, "The daemon's control socket");
    addConfiguration(arguments, common, "The configuration file that names it").excludes(socket);
    arguments.flag("--json", options->json, "Show the daemon's answer, one JSON object a line");
    arguments.footer(ctlHelpCM);
    for (DaemonCommand const& each : commandsCM) {
        Arguments own = arguments.command(each.name, each.description);
        each.declare(own, *options);
        own.runs([options, &common, &each] {
            options->command = each.name;
            options->configuration = common.configuration;
            options->sections = common.sections;
            return ctl(*options, each.run);
        });
    }
}

} // namespace

Command const ctlCommandCM = {"ctl", "Ask or command a daemon that 'nphost run' started", declareCtl};

} // namespace nphost
