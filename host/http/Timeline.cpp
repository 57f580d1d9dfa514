#include "host/http/Timeline.h"

#include "host/base/Text.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <numeric>

namespace nphost {

namespace {

using DAT::NumberPortability::StoredPrefix;

constexpr std::uint64_t secondsADayCM = 86'400;

// How wide each period is drawn. All are to scale unless this changes one.
class Widths {
  public:
    explicit Widths(std::vector<std::uint64_t> const& instants) {
        for (std::size_t i = 1; i < instants.size(); ++i)
            widthsM.push_back(static_cast<double>(instants[i] - instants[i - 1]));
    }

    // The second longest first: beside the longest it would never stand out.
    bool shorten() {
        std::vector<double*> longest;
        for (double& width : widthsM)
            longest.push_back(&width);
        std::sort(longest.begin(), longest.end(), [](double const* a, double const* b) { return *a > *b; });
        bool changed = false;
        for (std::size_t i = std::min<std::size_t>(2, longest.size()); i-- > 0;) {
            double others = 0;
            for (std::size_t j = i + 1; j < longest.size(); ++j)
                others += *longest[j];
            if (others > 0 && *longest[i] > 3 * others) {
                *longest[i] = others;
                changed = true;
            }
        }
        return changed;
    }

    bool widen() {
        double const least = sum() / static_cast<double>(std::max<std::size_t>(80, 2 * widthsM.size()));
        bool changed = false;
        for (double& width : widthsM)
            if (width < least) {
                width = least;
                changed = true;
            }
        return changed;
    }

    double sum() const { return std::accumulate(widthsM.begin(), widthsM.end(), 0.0); }
    double operator[](std::size_t i) const { return widthsM[i]; }

  private:
    std::vector<double> widthsM;
};

struct Unit {
    unsigned int years = 0;
    unsigned int months = 0;
    std::uint64_t seconds = 0; // roughly, of the years and months
    char const* pattern = nullptr;
    double apart = 0; // percent, so that labels do not meet on a phone
};

constexpr std::array<Unit, 15> unitsCM = {{{0, 0, 1, "%H:%M:%S", 22},
                                           {0, 0, 60, "%H:%M", 16},
                                           {0, 0, 600, "%H:%M", 16},
                                           {0, 0, 3'600, "%m-%d %H:%M", 26},
                                           {0, 0, 21'600, "%m-%d %H:%M", 26},
                                           {0, 0, secondsADayCM, "%Y-%m-%d", 24},
                                           {0, 0, 7 * secondsADayCM, "%Y-%m-%d", 24},
                                           {0, 1, 2'629'746, "%Y-%m", 18},
                                           {0, 3, 7'889'238, "%Y-%m", 18},
                                           {1, 0, 31'556'952, "%Y", 11},
                                           {2, 0, 63'113'904, "%Y", 11},
                                           {5, 0, 157'784'760, "%Y", 11},
                                           {10, 0, 315'569'520, "%Y", 11},
                                           {100, 0, 3'155'695'200, "%Y", 11},
                                           {1000, 0, 31'556'952'000, "%Y", 11}}};

// The first of a month, counted from the first month of the year 0.
BAS::DateTime monthAt(std::uint64_t months) {
    std::string year = std::to_string(months / 12);
    std::string month = std::to_string(months % 12 + 1);
    year.insert(0, 4 - std::min<std::size_t>(4, year.size()), '0');
    month.insert(0, 2 - month.size(), '0');
    return BAS::DateTime(std::string_view(year + month + "01000000"));
}

// Where the unit's marks lie from `begin` to `end`.
std::vector<BAS::DateTime> marks(Unit const& unit, std::uint64_t begin, std::uint64_t end) {
    std::vector<BAS::DateTime> result;
    std::uint64_t const step = 12 * unit.years + unit.months;
    if (step == 0) {
        for (std::uint64_t at = (begin + unit.seconds - 1) / unit.seconds * unit.seconds; at <= end; at += unit.seconds)
            result.push_back(BAS::DateTime::fromSeconds(at));
        return result;
    }
    std::string const from = BAS::DateTime::fromSeconds(begin).asString("%Y").str();
    for (std::uint64_t month = 12 * std::stoul(from) / step * step;; month += step) {
        BAS::DateTime const at = month < 12 ? BAS::DateTime() : monthAt(month);
        if (at.isValid() ? at.seconds() > end : month >= 12)
            return result;
        if (at.isValid() && at.seconds() >= begin)
            result.push_back(at);
    }
}

} // namespace

Timeline::Timeline(Explained const& explained, BAS::DateTime now) : explainedM(explained) {
    std::string_view const number = explained.number().view();
    std::copy_if(number.begin(), number.end(), std::back_inserter(digitsM), isDigit);
    Explanation const explanation(explained.prefixes(), explained.number());
    Explanation::Choice const chosen = explained.choice(explained.configured());
    for (StoredPrefix const& prefix : explained.prefixes())
        if (lanesM.size() < mostLanesCM)
            addLane(prefix, chosen);
    lanesLeftOutM = explained.prefixes().size() - lanesM.size();
    addAnswers(explanation);
    makeScale(now);
}

void Timeline::addLane(StoredPrefix const& prefix, Explanation::Choice const& chosen) {
    Lane& lane = lanesM.emplace_back();
    lane.prefix = prefix.key.view();
    lane.isNumber = prefix.key.str() == digitsM;
    std::size_t const drawn = std::min(prefix.history.size(), mostRecordsCM);
    lane.olderLeftOut = prefix.history.size() - drawn;
    BAS::DateTime until;
    for (std::size_t i = 0; i < drawn; ++i) {
        auto const& record = prefix.history[i];
        lane.bands.push_back({record.validFromM, until, record.networkIdM.view(),
                              lane.isNumber ? Kind::NUMBER : Kind::BLOCK, &record == chosen.record});
        until = record.validFromM;
    }
    std::reverse(lane.bands.begin(), lane.bands.end());
}

std::vector<std::uint64_t> Timeline::beginnings() const {
    std::vector<std::uint64_t> instants;
    for (Lane const& lane : lanesM)
        for (Band const& band : lane.bands)
            instants.push_back(band.from.seconds());
    std::sort(instants.begin(), instants.end());
    instants.erase(std::unique(instants.begin(), instants.end()), instants.end());
    return instants;
}

std::string_view Timeline::blockAt(BAS::DateTime at) const {
    for (StoredPrefix const& prefix : explainedM.prefixes()) {
        if (prefix.key.str() == digitsM)
            continue;
        auto const found = std::partition_point(prefix.history.begin(), prefix.history.end(),
                                                [at](auto const& record) { return record.validFromM > at; });
        if (found != prefix.history.end())
            return found->networkIdM.view();
    }
    return {};
}

Timeline::Kind Timeline::kindOf(Explanation::Choice const& choice, BAS::DateTime at) const {
    if (choice.prefix->key.str() != digitsM)
        return Kind::BLOCK;
    std::string_view const block = blockAt(at);
    return block.empty() || block == choice.record->networkIdM.view() ? Kind::NUMBER : Kind::PORTED;
}

// An answer can change only where a record begins. One period goes on while network and kind do.
void Timeline::addAnswers(Explanation const& explanation) {
    for (std::uint64_t const seconds : beginnings()) {
        BAS::DateTime const at = BAS::DateTime::fromSeconds(seconds);
        Band band;
        band.from = at;
        if (Explanation::Choice const choice = explanation.choose(explainedM.configured(), at); choice.record) {
            band.network = choice.record->networkIdM.view();
            band.kind = kindOf(choice, at);
        }
        if (!answersM.empty() && answersM.back().network == band.network && answersM.back().kind == band.kind)
            continue;
        if (!answersM.empty())
            answersM.back().until = at;
        answersM.push_back(band);
    }
    for (Band& band : answersM)
        band.chosen = band.from <= explainedM.at() && (!band.until.isValid() || explainedM.at() < band.until);
}

Timeline::Band const* Timeline::answerAt(BAS::DateTime at) const {
    auto const next =
        std::partition_point(answersM.begin(), answersM.end(), [at](Band const& band) { return band.from <= at; });
    return next == answersM.begin() ? nullptr : &*std::prev(next);
}

void Timeline::makeScale(BAS::DateTime now) {
    std::vector<std::uint64_t> instants = beginnings();
    auto const add = [&instants](BAS::DateTime at) {
        auto const place = std::lower_bound(instants.begin(), instants.end(), at.seconds());
        if (place == instants.end() || *place != at.seconds())
            instants.insert(place, at.seconds());
    };
    // Neither is to move what is drawn where it lies among it, however it is moved itself.
    for (BAS::DateTime const at : {now, explainedM.at()})
        if (at.seconds() < instants.front() || at.seconds() > instants.back())
            add(at);
    Widths widths(instants);
    isToScaleM = !widths.shorten();
    isToScaleM = !widths.widen() && isToScaleM;

    // What lies before the first record and behind the last instant: a part of the axis, if the calendar has it.
    double const all = widths.sum() > 0 ? widths.sum() : static_cast<double>(secondsADayCM);
    std::uint64_t const margin =
        std::max(isToScaleM ? static_cast<std::uint64_t>(all / 16) : std::uint64_t{0}, secondsADayCM);
    constexpr double before = 4;
    constexpr double behind = 6;
    double percent = before;
    double const aPercent = (100 - before - behind) / all;
    scaleM.push_back({instants.front() - std::min(instants.front(), margin), 0});
    for (std::size_t i = 0; i < instants.size(); ++i) {
        if (i > 0)
            percent += widths[i - 1] * aPercent;
        scaleM.push_back({instants[i], instants.size() == 1 ? 50 : percent});
    }
    scaleM.push_back({std::min(instants.back() + margin, BAS::DateTime::invalidSecsCM - 1), 100});
}

double Timeline::percent(BAS::DateTime at) const {
    auto const next = std::partition_point(scaleM.begin(), scaleM.end(),
                                           [at](Knot const& knot) { return knot.seconds <= at.seconds(); });
    if (next == scaleM.begin())
        return 0;
    if (next == scaleM.end())
        return 100;
    Knot const& last = *std::prev(next);
    double const part =
        static_cast<double>(at.seconds() - last.seconds) / static_cast<double>(next->seconds - last.seconds);
    return last.percent + part * (next->percent - last.percent);
}

// Round dates where the axis is even, else the days on which something begins.
std::vector<Timeline::Tick> Timeline::ticks() const {
    constexpr std::size_t mostTicks = 9;
    std::uint64_t const begin = scaleM.front().seconds;
    std::uint64_t const end = scaleM.back().seconds;
    auto const unit = std::find_if(unitsCM.begin(), unitsCM.end() - 1, [begin, end](Unit const& each) {
        return (end - begin) / each.seconds <= mostTicks;
    });
    std::vector<BAS::DateTime> instants;
    if (isToScaleM)
        instants = marks(*unit, begin, end);
    else
        for (std::uint64_t const seconds : beginnings())
            instants.push_back(BAS::DateTime::fromSeconds(seconds));
    double const apart = isToScaleM ? unit->apart : 36;
    std::vector<Tick> ticks;
    for (BAS::DateTime const at : instants)
        if (double const place = percent(at);
            place > 3 && place < 97 && (ticks.empty() || place - ticks.back().percent >= apart))
            ticks.push_back({place, at.asString(isToScaleM ? unit->pattern : "%Y-%m-%d").str()});
    return ticks;
}

} // namespace nphost
