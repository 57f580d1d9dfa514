// Numbers in foreign forms, brought into stored form by the module itself.
#include "host/fields/NumberForm.h"
#include "host/cli/Sections.h"
#include "host/module/Host.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

std::string const exampleDataCM = std::string(NP_SOURCE_FOLDER) + "/examples/portability.dat";

struct Case {
    std::string text;
    char const* stored; // "-": no number; "?": one that cannot be read; ".0": a quantity; "+0": no country's
};

std::string shownAs(nphost::NumberKind kind, BAS::String const& stored) {
    std::array<std::string, 5> const others = {stored.str(), "-", "?", ".0", "+0"};
    return others[static_cast<std::size_t>(kind)];
}

void expectForms(std::string const& codes, std::vector<Case> const& cases) {
    nphost::Configuration configuration = nphost::parseConfiguration(
        "[DAT_NumberPortability]\nFileName = \"" + exampleDataCM + "\"\n" + codes, "/test.toml", nphost::sectionsCM);
    nphost::DiallingCodes const dialling = diallingCodesOf(configuration);
    nphost::Host host(std::move(configuration), {"/test.toml"});
    nphost::NumberForm const form(dialling, [&](BAS::String& number) { host.plugIn().normalize(number); });
    for (Case const& test : cases) {
        BAS::String stored;
        EXPECT_EQ(shownAs(form.toStored(test.text, stored), stored), test.stored) << "'" << test.text << "'";
    }
}

std::vector<Case> const formsCM = {
    // as people write them
    {"07700900123", "00447700900123"},
    {" (07700) 900-123\t", "00447700900123"},
    {"7700.900.123", "00447700900123"},
    {"+44 7700 900123", "00447700900123"},
    {"(+44) 7700 900123", "00447700900123"},
    {"+44 (0)7700 900123", "00447700900123"},
    {"0044 (0) 7700 900123", "00447700900123"},
    {"+39 (0)6 1234", "0039061234"}, // other countries may keep the zero
    {"00 33 1 23", "0033123"},
    // as editors and spreadsheets make of it
    {"07400/123456", "00447400123456"},
    {"\u00a007700\u2011900\u2013123\u200b", "00447700900123"},
    {"\u202a+44\u202f7700\u2009900123\u202c", "00447700900123"},
    {"\u2212", "-"},
    {"\uff10\uff17\uff17\uff10\uff10\u3000\uff19\uff10\uff10\uff11\uff12\uff13", "00447700900123"},
    {"\uff0b44\uff08\uff10\uff097700\uff0f900123", "00447700900123"},
    {"\u0660\u0667\u0667\u0660\u06f0\u06f9\u06f0\u06f0\u06f1\u06f2\u06f3", "00447700900123"},
    {"07700\u00e9900123", "?"},
    {"07700\240900123", "?"}, // not UTF-8
    {"07700\xe2\x80", "?"},
    {"447700900123.0", ".0"},
    {" +447700900123.00 ", ".0"},
    {"0800.000", "0044800000"},
    {"(447700900123.0)", ".0"},
    {"(+447700900123.00 )", ".0"},
    {"447700900123.0 ext. 5", ".0"},
    {"tel:+447700900123.0;ext=5", ".0"},
    {"tel:1234;phone-context=+44.0", ".0"},
    {"sip:447700900123.0@example.com", ".0"},
    {"sip:%2B447700900123.00@example.com;user=phone", ".0"},
    {"\"Bob\" <447700900123.0>;tag=1", ".0"},
    {"<tel:447700900123.0>", ".0"},
    {"tel:+44-7700-900-123.0", "004477009001230"}, // a separator in its place
    {"4.47701E+11", "?"},
    {"[\"+447700900123\"]", "?"},
    {"{}", "?"},
    {"07700900123/07700900124", "?"}, // two numbers
    {"07700900123 20240615", "?"},
    {"7700900 20240615", "?"}, // a date; with the country's code it is longer than a number
    {"0044 (0) 1234 567890123", "00441234567890123"},
    // extensions
    {"07700 900123 ext. 5", "00447700900123"},
    {"07700 900123, Ext 1234567", "00447700900123"},
    {"+44 7700 900123;ext=5", "00447700900123"},
    {"(07700) 900123 extension: 5", "00447700900123"},
    {"07700900123x5", "00447700900123"},
    {"07700 900123 X#12345 ", "00447700900123"},
    {"07700900123xx5", "?"}, // hidden digits
    {"07700900123x", "?"},
    {"07700900123 ext 12345678", "?"},
    {"07700900123 text 5", "?"},
    {"ext. 5", "?"},
    {"+44", "0044"}, // a prefix is a number
    {"", "-"},
    {" ", "-"},
    {"+", "-"},
    {"0", "?"},
    {"00", "?"},
    {"unknown", "-"},
    // no country code begins with 0
    {"+07700 900123", "+0"},
    {"+0044 7700 900123", "+0"},
    {"(+0)7700 900123", "+0"},
    {"+(0)44 7700 900123", "+0"},
    {"+0", "+0"},
    {"tel:+07700900123", "+0"},
    {"tel:7700900123;phone-context=+0044", "+0"},
    {"sip:+07700900123@example.com", "+0"},
    {"<sip:%2B0044-7700-900123@example.com;user=phone>", "+0"},
    {"07700x900123", "?"},
    {"*31#07700900123", "?"},
    {"+44+7700", "?"},
    {std::string("07700\0", 6), "?"},
    // tel:
    {"tel:+44-7700-900.123", "00447700900123"},
    {"TEL:+(44)7700900123;ext=12", "00447700900123"},
    {"tel:+447700900123;npdi;rn=+441712345678", "00447700900123"},
    {"tel:+44%207700900123", "00447700900123"},
    {"tel:07700900123;phone-context=example.com", "00447700900123"},
    {"tel:07700900123", "00447700900123"},
    {"tel:1234567;phone-context=+44171", "00441711234567"},
    {"tel:863-1234;isub=1;Phone-Context=+1-914-555", "0019145558631234"},
    {"tel:07700900123;phone-context=%2B44", "00447700900123"},
    {"tel:01711234567;phone-context=+44171", "00441711234567"},
    {"tel:0033123;phone-context=+44", "0033123"},
    {"tel:0301234;phone-context=+49", "00490301234"},
    {"tel:+44;phone-context=+1", "0044"},
    {"tel:+44(0)7400123456", "00447400123456"},
    {"tel:0044-(0)-7400/123456", "00447400123456"},
    {"tel:+39(0)61234", "0039061234"},
    {"sip:+44(0)7400123456@example.com", "00447400123456"},
    {"sip:anonymous@192.0.2.1", "-"},
    {"tel:1234;phone-context=+", "?"},
    {"tel:1234;phone-context=+4x", "?"},
    {"tel:*21;phone-context=+44", "?"},
    {"tel:7A42;phone-context=example.com", "?"},
    {"tel:", "-"},
    {"tel:+", "-"},
    {"tel:;phone-context=+44", "?"},
    {"tel:+44%2", "?"},
    {"tel:+44%zz7700", "?"},
    // sip: and sips:
    {"sip:+447700900123@example.com;user=phone", "00447700900123"},
    {"sips:+44-7700-900123@[2001:db8::1]:5061;transport=tcp;user=PHONE?subject=x", "00447700900123"},
    {"SIP:07700900123:secret@example.com", "00447700900123"},
    {"sip:%2B447700900123@example.com", "00447700900123"},
    {"sip:07700900123;phone-context=+44@example.com;user=phone", "00447700900123"},
    {"sip:1234;phone-context=+1914@example.com;user=phone", "0019141234"},
    {"sip:alice@example.com", "-"},
    {"sip:alice@example.com;user=phone", "-"},
    {"sip:07700900123;npdi;rn=+441712345678@example.com", "00447700900123"},
    {"sip:+44-7700-900123@example.com", "00447700900123"},
    {"sip:(07700)900.123:secret@example.com", "00447700900123"},
    {"sip:1234;phone-context=+1914@example.com", "0019141234"},
    {"sip:1001.bob@example.com", "?"},
    {"sip:44-a@example.com", "?"},
    {"sip:07700%20900123@example.com", "?"},
    {"sip:-@example.com", "-"},
    {"sip:;npdi@example.com", "-"},
    {"sip:*31#07700900123@example.com", "?"},
    {"sip:+44%@example.com", "?"},
    {"sip:07700900123", "?"}, // a host's name
    {"sip:@example.com", "-"},
    {"sip:", "-"},
    {"mailto:07700900123@example.com", "?"},
    // name-addr
    {"<sip:+447700900123@example.com;user=phone>;tag=1", "00447700900123"},
    {" \"B. \\\"<1>\" <tel:+44-7700-900123> ; tag=1 ", "00447700900123"},
    {"Bob <SIPS:07700900123@example.com>", "00447700900123"},
    {"<+447700900123>", "00447700900123"},
    {"07700900123 <sip:alice@example.com>", "-"},
    {"\"<07700900123>\"", "?"},
    {"\"Bob <sip:07700900123@example.com>", "?"},
    {"Bob <sip:07700900123@example.com", "?"},
    {"<sip:07700900123@example.com>1", "?"},
    {"<>", "-"},
};

TEST(NumberFormTest, BringsEveryFormIntoStoredForm) {
    expectForms("CountryCode = \"44\"\nNationalAccessCode = \"0\"\n", formsCM);
}

TEST(NumberFormTest, ObeysTheConfiguredCodes) {
    expectForms("CountryCode = \"1\"\nNationalAccessCode = \"1\"\nInternationalAccessCode = \"011\"\n",
                {{"1 (914) 555-1234", "01119145551234"},
                 {"(914) 555-1234", "01119145551234"},
                 {"+44 7700 900123", "011447700900123"},
                 {"011 44 7700 900123", "011447700900123"},
                 {"tel:5551234;phone-context=+1914", "01119145551234"},
                 {"1", "?"}});
    expectForms(
        "CountryCode = \"39\"\nNationalAccessCode = \"\"\n",
        {{"06 1234", "0039061234"}, {"+39 (0)6 1234", "0039061234"}, {"tel:061234;phone-context=+39", "0039061234"}});
    expectForms("CountryCode = \"44\"\nNationalAccessCode = \"0\"\nInternationalAccessCodeSign = \"*\"\n",
                {{"*44 7700 900123", "00447700900123"},
                 {"tel:+447700900123", "00447700900123"},
                 {"+33 1", "00331"},
                 {"*07700900123", "+0"},
                 {"*447700900123.0", ".0"}});
}

} // namespace
