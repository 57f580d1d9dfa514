#include "host/http/Page.h"

#include "host/base/Text.h"
#include "host/fields/Numbers.h"
#include "host/http/Html.h"
#include "host/http/Timeline.h"

#include <algorithm>
#include <array>

namespace nphost {

namespace {

using DAT::NumberPortability::LoadOutcome;
using Band = Timeline::Band;
using Kind = Timeline::Kind;

constexpr std::size_t looksCM = 8; // colours with their patterns: page/style.css, patterns()

// The looks of a page's networks: each its own while there are enough, and where possible the same on every page.
class Looks {
  public:
    std::size_t of(std::string_view network) {
        auto const known = std::find(namesM.begin(), namesM.end(), network);
        if (known != namesM.end())
            return looksM[static_cast<std::size_t>(known - namesM.begin())];
        std::size_t look = hash(network) % looksCM;
        for (std::size_t i = 0; i < looksCM && takenM[look]; ++i)
            look = (look + 1) % looksCM;
        takenM[look] = true;
        namesM.emplace_back(network);
        looksM.push_back(look);
        return look;
    }
    std::vector<std::string> const& names() const { return namesM; }

  private:
    // FNV-1a: the same in every process.
    static std::size_t hash(std::string_view text) {
        std::uint32_t value = 2166136261U;
        for (char const c : text)
            value = (value ^ static_cast<unsigned char>(c)) * 16777619U;
        return value >> 16U;
    }

    std::vector<std::string> namesM;
    std::vector<std::size_t> looksM;
    std::array<bool, looksCM> takenM{};
};

// A page while it is made.
class Page {
  public:
    explicit Page(PageSetting const& setting) : settingM(setting) {}

    void begin(std::string_view title, bool isUpcoming);
    std::string end();

    void form(PageQuestion const& question, bool isAlone);
    void answer(PageQuestion const& question, Explained const& explained);
    void heading(std::string_view text);
    void fault(std::string_view text);
    void upcoming(UpcomingPart const& part);
    void standing();
    std::string shown(std::string_view stored) const;

  private:
    void patterns();
    void pill();
    // The parts of an answer.
    void headline(Explained const& explained, Timeline const& timeline);
    void facts(Explained const& explained, Timeline const& timeline);
    void portedFact(Band const* band, std::string_view block, bool isOwn);
    void details(std::string_view network);
    void change(Explained const& explained);
    void timeline(Explained const& explained, Timeline const& timeline);
    void drawing(Explained const& explained, Timeline const& timeline);
    void lane(std::string_view label, std::string_view note, std::vector<Band> const& bands, unsigned int y,
              bool isAnswer, Timeline const& timeline);
    void band(Band const& band, unsigned int y, unsigned int height, bool isAnswer, Timeline const& timeline);
    void axis(Timeline const& timeline, unsigned int y);
    void mark(char const* name, char const* label, BAS::DateTime at, unsigned int y, unsigned int height,
              unsigned int labelY, Timeline const& timeline);
    void steps(Explained const& explained, Timeline const& timeline);
    void legend(Timeline const& timeline);
    void methods(Explained const& explained);
    void records(Explained const& explained, Timeline const& timeline);
    void laneRows(Timeline::Lane const& lane);
    // The parts of the standing.
    void warnings();
    void dataFacts();
    void loadFacts();
    void guardFacts();
    void fact(std::string_view name, std::string_view value);
    void countFact(std::string_view name, std::uint64_t count);
    void upcomingRows(UpcomingPart const& part);

    void swatch(std::string_view network);
    void network(std::string_view id); // with its colour, and its identifier beside its name
    std::string labelOf(std::string_view id) const;
    void link(std::string_view number, BAS::DateTime at);
    void time(BAS::DateTime at);
    void instantLink(std::string_view number, BAS::DateTime at);

    PageSetting const& settingM;
    Html htmlM;
    Looks looksM;
};

// As a browser's field has it.
std::string fieldOf(BAS::DateTime at) {
    return at.isValid() ? at.asString("%Y-%m-%dT%H:%M:%S").str() : std::string();
}

char const* nameOf(LoadOutcome::Kind kind) {
    constexpr std::array<char const*, 4> names = {"none", "first load", "reload", "delta"};
    return names.at(kind);
}

void Page::begin(std::string_view title, bool isUpcoming) {
    htmlM.raw("<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
              "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
              "<meta name=\"color-scheme\" content=\"light dark\"><title>");
    htmlM.text(title);
    htmlM.raw("</title><link rel=\"icon\" href=\"data:image/svg+xml,%3Csvg xmlns='http://www.w3.org/2000/svg' "
              "viewBox='0 0 16 16'%3E%3Crect width='16' height='16' rx='4' fill='%231d4ed8'/%3E%3Cpath d='M3 5h6M3 8h10"
              "M7 11h6' stroke='white' stroke-width='2' stroke-linecap='round'/%3E%3C/svg%3E\">"
              "<link rel=\"stylesheet\" href=\"style.css\"><script src=\"app.js\" defer></script></head>\n"
              "<body><a class=\"skip\" href=\"#main\">Skip to the content</a><header class=\"top\"><div class=\"wrap\">"
              "<a class=\"brand\" href=\"./\">Number portability</a><nav aria-label=\"Pages\"><a href=\"./\"");
    htmlM.raw(isUpcoming ? ">" : " aria-current=\"page\">").raw("Look up</a><a href=\"upcoming\"");
    htmlM.raw(isUpcoming ? " aria-current=\"page\">" : ">").raw("Coming &amp; data</a></nav>");
    pill();
    htmlM.raw("</div></header>\n<main id=\"main\" class=\"wrap\">\n");
    patterns();
}

std::string Page::end() {
    htmlM.raw("</main>\n<footer class=\"wrap\"><p>Times are the clock time of the data (<bdi>");
    htmlM.text(settingM.dataZone).raw("</bdi>). It is now <time>").instant(settingM.now);
    return htmlM.raw("</time> there.</p></footer></body></html>\n").take();
}

// Tiles of 10 by 10, each with a tint of its colour: whoever sees no colours sees the lines.
void Page::patterns() {
    constexpr std::array<char const*, looksCM> lines = {
        "",
        "<path d=\"M-2 2 2-2M0 10 10 0M8 12 12 8\"/>",
        "<circle cx=\"2.5\" cy=\"2.5\" r=\"1.2\"/><circle cx=\"7.5\" cy=\"7.5\" r=\"1.2\"/>",
        "<path d=\"M-2 8 2 12M0 0 10 10M8-2 12 2\"/>",
        "<path d=\"M0 2.5H10M0 7.5H10\"/>",
        "<path d=\"M2.5 0V10M7.5 0V10\"/>",
        "<path d=\"M0 0 10 10M0 10 10 0\"/>",
        "<path d=\"M0 5 5 2 10 5M0 10 5 7 10 10\"/>",
    };
    htmlM.raw("<svg class=\"defs\" width=\"0\" height=\"0\" aria-hidden=\"true\"><defs>");
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::string const look = std::to_string(i);
        htmlM.raw("<pattern id=\"p").raw(look).raw("\" class=\"n").raw(look);
        htmlM.raw("\" width=\"10\" height=\"10\" patternUnits=\"userSpaceOnUse\"><rect width=\"10\" height=\"10\"/>");
        htmlM.raw(lines[i]).raw("</pattern>");
    }
    htmlM.raw("<pattern id=\"none\" class=\"nobody\" width=\"8\" height=\"8\" patternUnits=\"userSpaceOnUse\">"
              "<path d=\"M0 8 8 0\"/></pattern></defs></svg>\n");
}

void Page::pill() {
    auto const& data = settingM.standing.data;
    htmlM.raw("<p class=\"pill");
    if (!data.usable)
        htmlM.raw(" bad\">").raw(data.loading ? "The data are being loaded" : "No data are loaded");
    else
        htmlM.raw(" good\">").count(data.numbers).raw(data.numbers == 1 ? " number" : " numbers").raw(", loaded ");
    if (data.usable)
        htmlM.raw(distanceText(data.liveSince, settingM.utc, 1));
    htmlM.raw("</p>");
}

void Page::form(PageQuestion const& question, bool isAlone) {
    if (isAlone)
        htmlM.raw("<h1>Whose number is it, and since when?</h1><p class=\"lead\">Every network that a number belonged "
                  "to, belongs to and will belong to, as far as the data say.</p>");
    htmlM.raw("<form class=\"ask\" action=\"./\" method=\"get\" role=\"search\"><p><label for=\"number\">Number</label>"
              "<input id=\"number\" name=\"number\" type=\"text\" inputmode=\"tel\" autocomplete=\"off\" "
              "spellcheck=\"false\" required maxlength=\"1000\" placeholder=\"in any form\" value=\"");
    htmlM.text(question.number).raw(isAlone ? "\" autofocus" : "\"");
    htmlM.raw("></p><p><label for=\"at\">At <span>empty is now</span></label><input id=\"at\" name=\"at\" "
              "type=\"datetime-local\" step=\"1\" value=\"");
    htmlM.text(question.at).raw("\"></p><button>Look up</button></form>\n");
    if (isAlone)
        htmlM.raw(
            "<ul class=\"hints\"><li>The number as people write it, with or without its country code; as "
            "<code>tel:</code> or <code>sip:</code> address; or as it stands in the data.</li><li>The answer shows "
            "the number’s whole life: drag along it to ask for another instant.</li><li>Every answer has a link "
            "that you can keep.</li></ul>\n");
}

void Page::heading(std::string_view text) {
    htmlM.raw("<h1>").text(text).raw("</h1>\n");
}

void Page::fault(std::string_view text) {
    htmlM.raw("<section class=\"card fault\" role=\"alert\"><h1>This cannot be answered</h1><p>");
    htmlM.text(text).raw(".</p></section>\n");
}

std::string Page::shown(std::string_view stored) const {
    std::string const& code = settingM.internationalAccessCode;
    bool const isGlobal = !code.empty() && stored.size() > code.size() && stored.substr(0, code.size()) == code;
    return isGlobal ? "+" + std::string(stored.substr(code.size())) : std::string(stored);
}

std::string Page::labelOf(std::string_view id) const {
    std::string name = settingM.networkOf(id).name;
    return name.empty() ? std::string(id) : name;
}

void Page::swatch(std::string_view network) {
    std::string const look = std::to_string(looksM.of(network));
    htmlM.raw("<svg class=\"swatch n").raw(look);
    htmlM.raw("\" viewBox=\"0 0 16 16\" aria-hidden=\"true\"><rect width=\"16\" height=\"16\" fill=\"url(#p");
    htmlM.raw(look).raw(")\"/></svg>");
}

void Page::network(std::string_view id) {
    std::string const name = settingM.networkOf(id).name;
    htmlM.raw("<span class=\"network\">");
    swatch(id);
    htmlM.raw("<bdi>").text(name.empty() ? id : name).raw("</bdi>");
    if (!name.empty() && name != id)
        htmlM.raw(" <bdi class=\"id\">").text(id).raw("</bdi>");
    htmlM.raw("</span>");
}

// A permanent link's address.
void Page::link(std::string_view number, BAS::DateTime at) {
    htmlM.raw("./?number=").parameter(shown(number)).raw("&amp;at=").raw(digitsOf(at));
}

void Page::time(BAS::DateTime at) {
    htmlM.raw("<time datetime=\"").text(settingM.isoOf(at)).raw("\">").instant(at).raw("</time>");
}

void Page::instantLink(std::string_view number, BAS::DateTime at) {
    htmlM.raw("<a data-at=\"").raw(std::to_string(at.seconds())).raw("\" href=\"");
    link(number, at);
    htmlM.raw("\">");
    time(at);
    htmlM.raw("</a>");
}

void Page::answer(PageQuestion const& question, Explained const& explained) {
    htmlM.raw("<div id=\"answer\" data-live><div class=\"cards\">");
    std::optional<Timeline> timeline;
    if (!explained.prefixes().empty())
        timeline.emplace(explained, settingM.now);
    if (timeline) {
        headline(explained, *timeline);
        change(explained);
        htmlM.raw("</div></div>\n");
        this->timeline(explained, *timeline);
        methods(explained);
        records(explained, *timeline);
    } else {
        htmlM.raw("<section class=\"card\"><p class=\"asked\"><bdi class=\"number\">")
            .text(shown(explained.number().view()));
        htmlM.raw(
            "</bdi></p><h1>Nobody’s number</h1><p>No prefix of this number is stored, so it belongs to no network "
            "at any time.</p></section></div></div>\n");
    }
    htmlM.raw("<p class=\"keep\" id=\"keep\" data-live>To keep: <a id=\"permanent\" href=\"");
    link(explained.number().view(), explained.at());
    htmlM.raw("\">this number at this instant</a>").raw(question.at.empty() ? " (the page itself stays with now)" : "");
    htmlM.raw("</p>\n");
}

void Page::headline(Explained const& explained, Timeline const& timeline) {
    Explanation::Choice const choice = explained.choice(explained.configured());
    BAS::DateTime const at = explained.at();
    bool const isNow = at == settingM.now;
    char const* const verb = isNow ? "belongs to" : at < settingM.now ? "belonged to" : "will belong to";
    htmlM.raw("<section class=\"card\" aria-labelledby=\"who\"><p class=\"asked\"><bdi class=\"number\">");
    htmlM.text(shown(explained.number().view())).raw("</bdi> ").raw(isNow ? "now, " : "").raw(isNow ? "" : "at ");
    time(at);
    htmlM.raw(isNow ? ", " : " ").raw(verb).raw("</p><h1 id=\"who\">");
    if (choice.record != nullptr)
        network(choice.record->networkIdM.view());
    else
        htmlM.raw("no network");
    htmlM.raw("</h1>");
    facts(explained, timeline);
    htmlM.raw("</section>");
}

void Page::facts(Explained const& explained, Timeline const& timeline) {
    Explanation::Choice const choice = explained.choice(explained.configured());
    BAS::DateTime const at = explained.at();
    htmlM.raw("<dl class=\"facts\">");
    if (choice.record != nullptr) {
        htmlM.raw("<div><dt>Since</dt><dd>");
        time(choice.record->validFromM);
        htmlM.raw("<br><span class=\"small\">").raw(distanceText(choice.record->validFromM, settingM.now));
        htmlM.raw("</span></dd></div>");
        Band const* const band = timeline.answerAt(at);
        bool const isOwn = band == nullptr || band->kind != Kind::BLOCK;
        portedFact(band, timeline.blockAt(at), isOwn);
        htmlM.raw("<div><dt>").raw(isOwn ? "Stored as" : "By the block").raw("</dt><dd class=\"digits\">");
        htmlM.text(choice.prefix->key.view()).raw("</dd></div>");
        details(choice.record->networkIdM.view());
    } else {
        htmlM.raw("<div class=\"wide\"><dt>Why</dt><dd>")
            .text(explained.reason(explained.configured()))
            .raw("</dd></div>");
    }
    htmlM.raw("</dl>");
}

void Page::portedFact(Band const* band, std::string_view block, bool isOwn) {
    htmlM.raw("<div><dt>Ported</dt><dd>");
    if (band != nullptr && band->kind == Kind::PORTED) {
        htmlM.raw("<strong class=\"tag ported\">yes</strong> from ");
        network(block);
    } else {
        htmlM.raw(isOwn && block.empty() ? "not known: no block is stored" : "no");
    }
    htmlM.raw("</dd></div>");
}

void Page::details(std::string_view id) {
    PageNetwork const known = settingM.networkOf(id);
    if (!known.mcc.empty() || !known.mnc.empty())
        fact("MCC and MNC", known.mcc + " " + known.mnc);
    if (!known.routingNumber.empty())
        fact("Routing number", known.routingNumber);
    if (!known.text.empty())
        fact("Note", known.text);
}

void Page::change(Explained const& explained) {
    auto const next = explained.nextChange();
    htmlM.raw("<section class=\"card next\" aria-labelledby=\"next\"><h2 id=\"next\">Next change</h2>");
    if (!next) {
        htmlM.raw(
            "<p class=\"big\">none</p><p>Nothing that is stored changes this answer after the asked instant.</p>");
    } else {
        htmlM.raw("<p class=\"big\"><span data-countdown=\"").text(settingM.isoOf(next->at)).raw("\" data-now=\"");
        htmlM.text(settingM.isoOf(settingM.now)).raw("\">").raw(distanceText(next->at, settingM.now));
        htmlM.raw("</span></p><p>");
        instantLink(explained.number().view(), next->at);
        htmlM.raw("<br>to ");
        if (next->choice.record != nullptr)
            network(next->choice.record->networkIdM.view());
        else
            htmlM.raw("no network");
        htmlM.raw("</p>");
    }
    htmlM.raw("</section>");
}

constexpr unsigned int flagHeightCM = 22;
constexpr unsigned int labelHeightCM = 20;
constexpr unsigned int answerHeightCM = 44;
constexpr unsigned int laneHeightCM = 26;
constexpr unsigned int gapCM = 12;
constexpr unsigned int axisHeightCM = 42;

void Page::timeline(Explained const& explained, Timeline const& timeline) {
    htmlM.raw("<section class=\"card\" aria-labelledby=\"life\"><div class=\"head\"><h2 id=\"life\">Timeline</h2>");
    steps(explained, timeline);
    htmlM.raw("</div>");
    // The script shows the slider: without it, it would move nothing.
    htmlM.raw("<div class=\"chart\"><input id=\"slider\" type=\"range\" min=\"0\" max=\"10000\" step=\"1\" hidden "
              "aria-label=\"Asked instant\" aria-describedby=\"keys\" value=\"");
    htmlM.raw(std::to_string(static_cast<int>(timeline.percent(explained.at()) * 100))).raw("\">");
    drawing(explained, timeline);
    htmlM.raw(
        "</div><p id=\"keys\" class=\"small script\" hidden>Drag the handle, or click. With the keyboard: arrows a "
        "day, with Shift an hour, Page Up and Page Down to the next change, Home and End.</p>");
    if (!timeline.isToScale())
        htmlM.raw("<p class=\"small\">Not to scale: very long periods are drawn shorter, very short ones longer.</p>");
    legend(timeline);
    htmlM.raw("</section>\n");
}

void Page::steps(Explained const& explained, Timeline const& timeline) {
    BAS::DateTime previous;
    BAS::DateTime next;
    for (Band const& band : timeline.answers()) {
        if (band.from < explained.at())
            previous = band.from;
        else if (band.from > explained.at() && !next.isValid())
            next = band.from;
    }
    auto const step = [&](char const* id, BAS::DateTime at, char const* text) {
        if (!at.isValid()) {
            htmlM.raw("<span class=\"button\" aria-disabled=\"true\">").raw(text).raw("</span>");
            return;
        }
        htmlM.raw("<a class=\"button\" id=\"").raw(id).raw("\" data-at=\"").raw(std::to_string(at.seconds()));
        htmlM.raw("\" href=\"");
        link(explained.number().view(), at);
        htmlM.raw("\">").raw(text).raw("</a>");
    };
    htmlM.raw("<p class=\"steps\" id=\"steps\" data-live>");
    step("earlier", previous, "← Earlier");
    htmlM.raw("<a class=\"button\" id=\"now\" data-at=\"").raw(std::to_string(settingM.now.seconds()));
    htmlM.raw("\" href=\"./?number=").parameter(shown(explained.number().view())).raw("\">Now</a>");
    step("later", next, "Later →");
    htmlM.raw("</p>");
}

void Page::drawing(Explained const& explained, Timeline const& timeline) {
    auto const lanes = static_cast<unsigned int>(timeline.lanes().size());
    unsigned int const lanesHeight =
        labelHeightCM + answerHeightCM + gapCM + lanes * (labelHeightCM + laneHeightCM + gapCM);
    unsigned int const height = flagHeightCM + lanesHeight + axisHeightCM;
    htmlM.raw("<svg id=\"drawing\" data-live class=\"drawing\" width=\"100%\" height=\"").raw(std::to_string(height));
    htmlM.raw("\" role=\"img\" aria-label=\"Timeline; the table of records below says the same\" data-at=\"");
    htmlM.raw(std::to_string(explained.at().seconds())).raw("\" data-scale=\"");
    for (Timeline::Knot const& knot : timeline.scale())
        htmlM.raw(std::to_string(knot.seconds)).raw(":").percent(knot.percent).raw(" ");
    htmlM.raw("\" data-changes=\"");
    for (Band const& band : timeline.answers())
        htmlM.raw(std::to_string(band.from.seconds())).raw(" ");
    htmlM.raw("\">");

    unsigned int y = flagHeightCM;
    constexpr std::array<char const*, searchMethodsCM> methods = {"by the best match", "by the exact number",
                                                                  "by the shortest prefix"};
    lane("Answer", methods.at(std::min(explained.configured(), searchMethodsCM - 1)), timeline.answers(), y, true,
         timeline);
    y += labelHeightCM + answerHeightCM + gapCM;
    for (Timeline::Lane const& each : timeline.lanes()) {
        lane(each.prefix, each.isNumber ? "the number itself" : "block", each.bands, y, false, timeline);
        y += labelHeightCM + laneHeightCM + gapCM;
    }
    axis(timeline, y);
    mark("present", "now", settingM.now, flagHeightCM + labelHeightCM - 4, y - flagHeightCM - labelHeightCM + 4,
         y + axisHeightCM - 8, timeline);
    mark("asked", "asked", explained.at(), flagHeightCM - 6, y - flagHeightCM + 6, flagHeightCM - 10, timeline);
    htmlM.raw("</svg>");
}

void Page::lane(std::string_view label, std::string_view note, std::vector<Band> const& bands, unsigned int y,
                bool isAnswer, Timeline const& timeline) {
    unsigned int const height = isAnswer ? answerHeightCM : laneHeightCM;
    htmlM.raw("<text class=\"label\" x=\"0\" y=\"").raw(std::to_string(y + labelHeightCM - 6)).raw("\"><tspan");
    htmlM.raw(isAnswer ? ">" : " class=\"digits\">").text(label).raw("</tspan><tspan class=\"note\" dx=\"6\">");
    htmlM.raw(note).raw("</tspan></text>");
    y += labelHeightCM;
    htmlM.raw("<rect class=\"ground\" fill=\"url(#none)\" width=\"100%\" rx=\"4\" y=\"").raw(std::to_string(y));
    htmlM.raw("\" height=\"").raw(std::to_string(height)).raw("\"/>");
    for (Band const& each : bands)
        if (!each.network.empty())
            band(each, y, height, isAnswer, timeline);
}

// A drawing of its own, at whose edges the label is cut off.
void Page::band(Band const& band, unsigned int y, unsigned int height, bool isAnswer, Timeline const& timeline) {
    constexpr std::array<char const*, 3> kinds = {"own", "ported", "block"};
    char const* const kind = kinds.at(static_cast<std::size_t>(band.kind));
    double const begin = timeline.percent(band.from);
    double const end = band.until.isValid() ? timeline.percent(band.until) : 100;
    std::string const look = std::to_string(looksM.of(band.network));
    htmlM.raw("<svg class=\"band n").raw(look).raw(" ").raw(kind).raw(isAnswer ? " answers" : "");
    htmlM.raw(band.chosen ? " chosen" : "")
        .raw(end - begin < 5    ? " tiny"
             : end - begin < 14 ? " narrow"
                                : "")
        .raw("\" x=\"")
        .percent(begin)
        .raw("\" width=\"")
        .percent(end - begin);
    htmlM.raw("\" y=\"").raw(std::to_string(y)).raw("\" height=\"").raw(std::to_string(height)).raw("\"><title>");
    htmlM.text(labelOf(band.network)).raw(", ").raw(readable(band.from)).raw(" to ");
    htmlM.raw(band.until.isValid() ? readable(band.until) : "open end")
        .raw("</title><rect class=\"body\" width=\"100%\" ");
    htmlM.raw("height=\"100%\" fill=\"url(#p").raw(look).raw(")\"/><rect class=\"edge\" width=\"4\" height=\"100%\"/>");
    if (isAnswer && band.kind == Kind::PORTED)
        htmlM.raw("<rect class=\"edge\" width=\"100%\" height=\"5\"/>");
    htmlM.raw("<text x=\"10\" y=\"").raw(isAnswer ? "20" : "18").raw("\">").text(labelOf(band.network)).raw("</text>");
    if (isAnswer)
        htmlM.raw("<text class=\"note\" x=\"10\" y=\"36\">")
            .raw(band.kind == Kind::NUMBER ? "own record" : kind)
            .raw("</text>");
    htmlM.raw("</svg>");
}

void Page::axis(Timeline const& timeline, unsigned int y) {
    htmlM.raw("<line class=\"axis\" x1=\"0\" x2=\"100%\" y1=\"").raw(std::to_string(y)).raw("\" y2=\"");
    htmlM.raw(std::to_string(y)).raw("\"/>");
    for (Timeline::Tick const& tick : timeline.ticks()) {
        htmlM.raw("<line class=\"axis\" x1=\"").percent(tick.percent).raw("\" x2=\"").percent(tick.percent);
        htmlM.raw("\" y1=\"").raw(std::to_string(y)).raw("\" y2=\"").raw(std::to_string(y + 5));
        htmlM.raw("\"/><text class=\"tick\" text-anchor=\"");
        htmlM.raw(tick.percent < 9    ? "start"
                  : tick.percent > 91 ? "end"
                                      : "middle")
            .raw("\" x=\"")
            .percent(tick.percent)
            .raw("\" y=\"");
        htmlM.raw(std::to_string(y + 18)).raw("\">").raw(tick.label).raw("</text>");
    }
}

// A vertical line with its label, which must stay on the page at the edges.
void Page::mark(char const* name, char const* label, BAS::DateTime at, unsigned int y, unsigned int height,
                unsigned int labelY, Timeline const& timeline) {
    double const place = timeline.percent(at);
    htmlM.raw("<svg id=\"").raw(name).raw("\" class=\"mark ").raw(name).raw("\" x=\"").percent(place).raw("\">");
    htmlM.raw("<line y1=\"").raw(std::to_string(y)).raw("\" y2=\"").raw(std::to_string(y + height)).raw("\"/>");
    htmlM.raw("<text text-anchor=\"").raw(place < 32 ? "start" : place > 68 ? "end" : "middle").raw("\" y=\"");
    htmlM.raw(std::to_string(labelY)).raw("\">").raw(label).raw(" ").raw(readable(at)).raw("</text></svg>");
}

void Page::legend(Timeline const& timeline) {
    htmlM.raw("<ul class=\"legend\" id=\"legend\" data-live>");
    // A copy: network() may add a name.
    std::vector<std::string> const names = looksM.names();
    for (std::string const& id : names) {
        htmlM.raw("<li>");
        network(id);
        htmlM.raw("</li>");
    }
    auto const has = [&timeline](Kind kind) {
        return std::any_of(timeline.answers().begin(), timeline.answers().end(),
                           [kind](Band const& band) { return !band.network.empty() && band.kind == kind; });
    };
    auto const key = [this](char const* kind, char const* text) {
        htmlM.raw("<li><svg class=\"band key ").raw(kind).raw("\" width=\"26\" height=\"16\" aria-hidden=\"true\">");
        htmlM.raw(
            "<rect class=\"body\" width=\"100%\" height=\"100%\"/><rect class=\"edge\" width=\"4\" height=\"100%\"/>");
        htmlM.raw(std::string_view(kind) == "ported" ? "<rect class=\"edge\" width=\"100%\" height=\"5\"/>" : "");
        htmlM.raw("</svg> ").raw(text).raw("</li>");
    };
    if (has(Kind::PORTED))
        key("ported", "ported");
    if (has(Kind::NUMBER))
        key("own", "own record, not known as ported");
    if (has(Kind::BLOCK))
        key("block", "by its block");
    htmlM.raw("</ul>");
}

void Page::methods(Explained const& explained) {
    constexpr std::array<char const*, searchMethodsCM> names = {"Best match", "Exact number", "Shortest prefix"};
    htmlM.raw("<section class=\"card\" aria-labelledby=\"why\"><h2 id=\"why\">What each search method answers</h2>"
              "<ul class=\"methods\" id=\"methods\" data-live>");
    for (unsigned int method = 0; method < searchMethodsCM; ++method) {
        Explanation::Choice const choice = explained.choice(method);
        bool const isConfigured = method == std::min(explained.configured(), searchMethodsCM - 1);
        htmlM.raw(isConfigured ? "<li class=\"configured\"><h3>" : "<li><h3>").raw(names[method]);
        htmlM.raw(isConfigured ? " <span class=\"tag\">configured</span></h3><p class=\"found\">"
                               : "</h3><p class=\"found\">");
        if (choice.record != nullptr)
            network(choice.record->networkIdM.view());
        else
            htmlM.raw("nothing");
        htmlM.raw("</p><p class=\"reason\">").text(explained.reason(method)).raw(".</p></li>");
    }
    htmlM.raw("</ul></section>\n");
}

// The timeline in words, for those who cannot see it and for those who want the exact figures.
void Page::records(Explained const& explained, Timeline const& timeline) {
    htmlM.raw(
        "<section class=\"card\" aria-labelledby=\"stored\"><h2 id=\"stored\">Stored records</h2>"
        "<table class=\"records\" id=\"records\" data-live><thead><tr><th scope=\"col\">From</th><th scope=\"col\">"
        "Until</th><th scope=\"col\">Network</th></tr></thead>");
    for (Timeline::Lane const& each : timeline.lanes()) {
        htmlM.raw("<tbody><tr><th colspan=\"3\" scope=\"rowgroup\"><span class=\"digits\">").text(each.prefix);
        htmlM.raw("</span> ").raw(each.isNumber ? "the number itself" : "block").raw("</th></tr>");
        for (auto band = each.bands.rbegin(); band != each.bands.rend(); ++band) {
            htmlM.raw(band->chosen ? "<tr class=\"chosen\"><td>" : "<tr><td>");
            instantLink(explained.number().view(), band->from);
            htmlM.raw("</td><td>");
            if (band->until.isValid())
                time(band->until);
            else
                htmlM.raw("open");
            htmlM.raw("</td><td>");
            network(band->network);
            htmlM.raw(band->chosen ? " <span class=\"tag\">answers</span></td></tr>" : "</td></tr>");
        }
        if (each.olderLeftOut > 0)
            htmlM.raw("<tr><td colspan=\"3\">").count(each.olderLeftOut).raw(" older records are not shown</td></tr>");
        htmlM.raw("</tbody>");
    }
    htmlM.raw("</table>");
    if (timeline.lanesLeftOut() > 0)
        htmlM.raw("<p class=\"small\">").count(timeline.lanesLeftOut()).raw(" shorter prefixes are not shown.</p>");
    htmlM.raw("</section>\n");
}

void Page::fact(std::string_view name, std::string_view value) {
    htmlM.raw("<div><dt>").raw(name).raw("</dt><dd><bdi>").text(value).raw("</bdi></dd></div>");
}

void Page::countFact(std::string_view name, std::uint64_t count) {
    htmlM.raw("<div><dt>").raw(name).raw("</dt><dd>").count(count).raw("</dd></div>");
}

void Page::standing() {
    htmlM.raw("<section class=\"card\" aria-labelledby=\"data\"><h2 id=\"data\">How the data stand</h2>");
    warnings();
    htmlM.raw("<div class=\"columns\">");
    dataFacts();
    loadFacts();
    guardFacts();
    htmlM.raw("</div></section>\n");
}

void Page::warnings() {
    Standing const& standing = settingM.standing;
    std::vector<std::string> all;
    if (!standing.data.usable)
        all.emplace_back(standing.data.loading ? "The first load is under way: nothing is answered yet"
                                               : "No data are loaded: nothing can be answered");
    LoadOutcome const& load = standing.data.lastLoad;
    if (load.kind != LoadOutcome::NONE && !load.succeeded)
        all.emplace_back("The last load failed; the data before it go on serving");
    if (standing.guard.isRefused(standing.data.loads))
        all.emplace_back("The guard refused a load: " + joined(standing.guard.lastRefusal->reasons));
    if (standing.file.changed)
        all.emplace_back("The data file has changed since it was loaded");
    if (standing.data.unsaved)
        all.emplace_back("Records of a delta are served that could not be written to the data file");
    if (standing.reportsLost > 0)
        all.emplace_back("The log has lost reports: " + grouped(standing.reportsLost));
    htmlM.raw(all.empty() ? "<p class=\"state good\">All is well.</p>" : "<ul class=\"state bad\">");
    for (std::string const& each : all)
        htmlM.raw("<li>").text(each).raw(".</li>");
    htmlM.raw(all.empty() ? "" : "</ul>");
}

void Page::dataFacts() {
    Standing const& standing = settingM.standing;
    htmlM.raw("<div><h3>Live data</h3><dl class=\"facts\">");
    if (standing.data.liveSince.isValid()) {
        fact("Age", durationText(settingM.utc.seconds() - std::min(settingM.utc, standing.data.liveSince).seconds()));
        fact("Since (UTC)", readable(standing.data.liveSince));
    }
    countFact("Records", standing.data.records);
    countFact("Numbers and prefixes", standing.data.numbers);
    countFact("Look-ups served", standing.data.lookUps);
    fact("Search method", nameOfSearchMethod(std::min(standing.data.searchMethod, searchMethodsCM - 1)));
    fact("Memory", grouped(mebibytes(standing.memoryBytes)) + " MiB");
    fact("Data file", standing.file.name.view());
    htmlM.raw("</dl></div>");
}

void Page::loadFacts() {
    LoadOutcome const& load = settingM.standing.data.lastLoad;
    htmlM.raw("<div><h3>Last load</h3><dl class=\"facts\">");
    if (load.kind == LoadOutcome::NONE) {
        fact("Kind", "none has ended yet");
    } else {
        fact("Kind", nameOf(load.kind));
        fact("Result", load.succeeded ? "succeeded" : "failed");
        fact("Ended (UTC)", readable(load.ended) + ", " + distanceText(load.ended, settingM.utc));
        fact("Took",
             load.duration < 1 ? "less than a second" : durationText(static_cast<std::uint64_t>(load.duration)));
        countFact("Lines", load.lines);
        countFact("Rejected lines", load.counts.rejected);
        countFact("Numbers without digits", load.counts.withoutDigits);
        fact("File", load.fileName.view());
    }
    if (Standing::Progress const& progress = settingM.standing.progress; settingM.standing.data.loading)
        fact("Under way", grouped(progress.lines) + " lines, " + grouped(mebibytes(progress.bytes)) + " of " +
                              grouped(mebibytes(progress.totalBytes)) + " MiB");
    htmlM.raw("</dl></div>");
}

void Page::guardFacts() {
    Standing const& standing = settingM.standing;
    htmlM.raw("<div><h3>Guard</h3><dl class=\"facts\">");
    fact("Limits", standing.limits.any() ? textOf(standing.limits) : "none");
    if (standing.guard.checking)
        fact("Checking now", *standing.guard.checking);
    if (auto const& refusal = standing.guard.lastRefusal) {
        fact("Last refusal (UTC)", readable(refusal->ended) + ", " + distanceText(refusal->ended, settingM.utc));
        fact("Of", std::string(nameOf(refusal->kind)) + " " + refusal->file);
        for (std::string const& reason : refusal->reasons)
            fact("Because", reason);
        if (!standing.guard.isRefused(standing.data.loads))
            fact("Since then", "another load has ended");
    } else {
        fact("Last refusal", "none since the start");
    }
    htmlM.raw("</dl></div>");
}

void Page::upcoming(UpcomingPart const& part) {
    htmlM.raw(
        "<section class=\"card\" aria-labelledby=\"coming\"><h2 id=\"coming\">Upcoming assignments</h2>"
        "<form class=\"ask short\" action=\"upcoming\" method=\"get\"><p><label for=\"from\">After <span>empty is "
        "now</span></label><input id=\"from\" name=\"from\" type=\"datetime-local\" step=\"1\" value=\"");
    htmlM.raw(fieldOf(part.from))
        .raw("\"></p><p><label for=\"until\">Until <span>empty is ever</span></label>"
             "<input id=\"until\" name=\"until\" type=\"datetime-local\" step=\"1\" value=\"");
    htmlM.raw(fieldOf(part.until)).raw("\"></p><button>Show</button></form>");
    if (part.records.empty())
        htmlM.raw("<p>Nothing that is stored begins in this time.</p>");
    else
        upcomingRows(part);
    if (!part.next.empty()) {
        htmlM.raw("<p class=\"steps\"><a class=\"button\" rel=\"next\" href=\"upcoming?from=")
            .parameter(fieldOf(part.from));
        htmlM.raw("&amp;until=")
            .parameter(fieldOf(part.until))
            .raw("&amp;after=")
            .parameter(part.next)
            .raw("\">More →</a></p>");
    }
    htmlM.raw("</section>\n");
}

void Page::upcomingRows(UpcomingPart const& part) {
    htmlM.raw("<table class=\"records\"><thead><tr><th scope=\"col\">When</th><th scope=\"col\">Number or block</th>"
              "<th scope=\"col\">To</th></tr></thead><tbody>");
    for (UpcomingEntry const& record : part.records) {
        htmlM.raw("<tr><td>");
        time(record.validFrom);
        htmlM.raw("<br><span class=\"small\">").raw(distanceText(record.validFrom, settingM.now));
        htmlM.raw("</span></td><td class=\"digits\"><a href=\"");
        link(record.prefix, record.validFrom);
        htmlM.raw("\">").text(record.prefix).raw("</a></td><td>");
        network(record.network);
        htmlM.raw("<br><span class=\"small\">from ");
        if (record.before)
            network(*record.before);
        else
            htmlM.raw("nobody");
        htmlM.raw("</span></td></tr>");
    }
    htmlM.raw("</tbody></table>");
}

} // namespace

std::string pageInstant(std::string_view text) {
    constexpr std::size_t dateLength = std::string_view("2026-01-31").size();
    constexpr std::size_t minuteLength = std::string_view("2026-01-31T12:00").size();
    std::string result(trimmed(text));
    if (result.size() == dateLength)
        result += "T00:00:00";
    else if (result.size() == minuteLength)
        result += ":00";
    return result;
}

std::string lookUpPage(PageSetting const& setting, PageQuestion const& question, Explained const* explained,
                       std::string_view fault) {
    Page page(setting);
    std::string title = "Number portability";
    if (explained != nullptr)
        title = page.shown(explained->number().view()) +
                (question.at.empty() ? "" : " at " + readable(explained->at())) + " · " + title;
    page.begin(title, false);
    PageQuestion again = question;
    if (!question.at.empty())
        again.at = fieldOf(explained != nullptr ? explained->at() : parseInstant(pageInstant(question.at)));
    page.form(again, explained == nullptr && fault.empty());
    if (!fault.empty())
        page.fault(fault);
    if (explained != nullptr)
        page.answer(question, *explained);
    return page.end();
}

std::string upcomingPage(PageSetting const& setting, UpcomingPart const& part, std::string_view fault) {
    Page page(setting);
    page.begin("Coming and data · Number portability", true);
    if (fault.empty())
        page.heading("What is coming, and how the data stand");
    else
        page.fault(fault);
    page.standing();
    page.upcoming(part);
    return page.end();
}

std::string_view pagePolicy() {
    return "default-src 'none'; style-src 'self'; script-src 'self'; connect-src 'self'; img-src 'self' data:; "
           "form-action 'self'; base-uri 'none'; frame-ancestors 'none'";
}

} // namespace nphost
