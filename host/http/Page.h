// nphost's page: a number's life, what is to come and how the data stand, for a person with a browser.
//
// Purpose: makes whole HTML documents of what the service answers. They need no script for a look-up, its timeline
// included; the script (page/app.js) moves the asked instant, fetches the page for it and exchanges the parts that are
// marked data-live. They hold no style and no script of their own, so that pagePolicy() can forbid both, and their links
// are relative: the page may be served below any path that ends with a slash.
// Use: GET ./ with number and at is lookUpPage; GET upcoming with from, until and after is upcomingPage; style.css and
// app.js are pageStyle() and pageScript().
// Units: instants are of the data's clock, those of the standing UTC, as Standing has them.
// Ownership: borrows what it is given during the call. Threads: no state.
// Errors: std::bad_alloc; what the functions of PageSetting throw travels.
// Complexity: linear in what is shown; of a long history that is only a part (Timeline.h).
#pragma once

#include "host/http/Upcoming.h"
#include "host/service/Service.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

// What is known of a network besides its identifier; empty texts are not known.
struct PageNetwork {
    std::string name;
    std::string mcc;
    std::string mnc;
    std::string routingNumber;
    std::string text;
};

// What every page is made with.
struct PageSetting {
    BAS::DateTime now;                               // by the data's clock
    BAS::DateTime utc;                               // the same instant
    std::string dataZone;                            // "Europe/London"
    std::function<std::string(BAS::DateTime)> isoOf; // of an instant of the data's clock, with its offset
    std::function<PageNetwork(std::string_view id)> networkOf;
    std::string internationalAccessCode; // a stored number that begins with it is shown as E.164
    Standing const& standing;
};

// As it was asked, to be shown again.
struct PageQuestion {
    std::string number;
    std::string at;
};

// What a page's field of an instant holds, completed: browsers leave out seconds that are 0, people the time of the day.
// Empty: now. Anything else stays as it is, for whoever reads instants to take or refuse.
std::string pageInstant(std::string_view text);

// Without a number: the form alone. Of explained and fault there is one at the most; the fault is a sentence without its
// full stop that says why the question cannot be answered.
std::string lookUpPage(PageSetting const& setting, PageQuestion const& question, Explained const* explained,
                       std::string_view fault = {});

struct UpcomingPart {
    BAS::DateTime from; // as they were asked, to be shown again; invalid: they were not
    BAS::DateTime until;
    std::vector<UpcomingEntry> records; // by instant
    std::string next;                   // what `after` asks for the next part with; empty: this is the last
};
std::string upcomingPage(PageSetting const& setting, UpcomingPart const& part, std::string_view fault = {});

// Embedded files, of static duration.
std::string_view pageStyle();
std::string_view pageScript();

// The value of Content-Security-Policy that goes with the documents.
std::string_view pagePolicy();

} // namespace nphost
