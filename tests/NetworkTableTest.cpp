// The table of networks: what it takes, and what is wrong with a file that it refuses.
#include "host/fields/NetworkTable.h"
#include "host/config/ConfigurationError.h"
#include "tests/Texts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using nphost::NetworkTable;

struct Wrong {
    char const* label;
    std::string content;
    char const* reason;
};

std::vector<Wrong> const wrongCM = {
    {"no TOML", "[A]\nname\n", "n.toml:2: "},
    {"no UTF-8", "[A]\nname = \"\xff\"\n", "n.toml:2: "},
    {"a misspelt key", "[A]\nNAME = \"x\"\n", "n.toml:2: unknown key 'NAME' in [A]"},
    {"an identifier with a dot, not quoted", "[D.1]\nname = \"x\"\n", "n.toml:1: unknown key '1' in [D]"},
    {"a key of no network", "name = \"x\"\n", "n.toml:1: 'name' must be a table: [name]"},
    {"an array of tables", "[[A]]\nname = \"x\"\n", "n.toml:1: 'A' must be a table"},
    {"a network twice", "[A]\n[B]\n[A]\n", "n.toml:3: "},
    {"a network twice, quoted once", "[A]\n[B]\n['A']\n", "n.toml:3: "},
    {"a key twice", "[A]\nname = \"x\"\nname = \"y\"\n", "n.toml:3: "},
    {"no identifier", "\n[\"\"]\n", "n.toml:2: a network must have an identifier"},
    {"a forged message", "[A]\n\"x\\n\\u001b\" = 1\n", "n.toml:2: unknown key 'x\\n\\x1b' in [A]"},
    {"a name that is none", "[A]\nname = \"\"\n", "n.toml:2: 'name' must be a text"},
    {"a name on two lines", "[A]\nname = \"a\\nb\"\n",
     "n.toml:2: 'name' must be a text in quotation marks, on one line"},
    {"a code without quotation marks", "[A]\nmcc = 234\n", "n.toml:2: 'mcc' must be three digits in quotation marks"},
    {"a short country code", "[A]\nmcc = \"23\"\n", "n.toml:2: 'mcc' must"},
    {"a long country code", "[A]\nmcc = \"2345\"\n", "n.toml:2: 'mcc' must"},
    {"digits of another script", "[A]\nmcc = \"\xd9\xa2\xd9\xa3\"\n", "n.toml:2: 'mcc' must"},
    {"a short network code", "[A]\nmnc = \"1\"\n", "n.toml:2: 'mnc' must be two or three digits"},
    {"a long network code", "[A]\nmnc = \"1234\"\n", "n.toml:2: 'mnc' must"},
    {"both codes in one", "[A]\nmnc = \"234-15\"\n", "n.toml:2: 'mnc' must"},
    {"a plus alone", "[A]\nroutingNumber = \"+\"\n", "n.toml:2: 'routingNumber' must be a plus and digits, or"},
    {"a country code that is none", "[A]\nroutingNumber = \"+0447700\"\n", "n.toml:2: 'routingNumber' must"},
    {"sixteen digits", "[A]\nroutingNumber = \"+1234567890123456\"\n", "n.toml:2: 'routingNumber' must"},
    {"visual separators", "[A]\nroutingNumber = \"+44-7700\"\n", "n.toml:2: 'routingNumber' must"},
    {"no hexadecimal digit", "[A]\nroutingNumber = \"12G4\"\nroutingContext = \"+44\"\n", "n.toml:2: 'routingNumber'"},
    {"a local number of nowhere", "[A]\nroutingNumber = \"0A17\"\n", "n.toml:1: [A] needs 'routingContext'"},
    {"a context of nothing", "\n[A]\nroutingContext = \"+44\"\n", "n.toml:2: [A] has a 'routingContext', which"},
    {"a context of a global number", "[A]\nroutingNumber = \"+44\"\nroutingContext = \"+44\"\n", "n.toml:1: [A] has a"},
    {"a context that is no domain", "[A]\nroutingNumber = \"1\"\nroutingContext = \"a..b\"\n",
     "n.toml:3: 'routingContext' must be a plus and digits, or a domain name"},
    {"a parameter without a sign before it", "[A]\nparameters = \"cic=1\"\n",
     "n.toml:2: 'parameters' must be parameters"},
    {"a parameter without a name", "[A]\nparameters = \";a;=1\"\n", "n.toml:2: 'parameters' must"},
    {"a parameter that ends the URI", "[A]\nparameters = \";a=1>\"\n", "n.toml:2: 'parameters' must"},
    {"a parameter that ends a regular expression", "[A]\nparameters = \";a=1!\"\n", "n.toml:2: 'parameters' must"},
    {"a context with a hyphen in front", "[A]\nroutingNumber = \"1\"\nroutingContext = \"a.-b\"\n", "n.toml:3: "},
};

TEST(NetworkTableTest, RefusesWithFileLineAndReason) {
    for (Wrong const& test : wrongCM) {
        try {
            NetworkTable::parse(test.content, "n.toml");
            ADD_FAILURE() << test.label;
        } catch (nphost::ConfigurationError const& error) {
            EXPECT_TRUE(std::string(error.what()).starts_with(test.reason)) << test.label << ": " << error.what();
        }
    }
}

struct Known {
    char const* id;
    char const* json;
};

TEST(NetworkTableTest, TellsWhatIsKnown) {
    NetworkTable const table = NetworkTable::parse("[b]\n[\"B 1.x\"]\nmnc = \"015\"\ntext = \"a \\\"b\\\"\"\n"
                                                   "[A]\nname = \"\xc3\x84\"\nmcc = \"001\"\nmnc = \"01\"\n"
                                                   "routingNumber = \"+123456789012345\"\nserviceProvider = \"p\"\n"
                                                   "parameters = \";cic=+44123;x\"\n"
                                                   "[D]\nroutingNumber = \"0aF\"\nroutingContext = \"n.example.COM.\"\n"
                                                   "[\"\xc3\x84\"]\nname = \"x\"\n",
                                                   "n.toml");
    ASSERT_EQ(table.size(), 5U);
    for (Known const& test : {
             Known{"A", "{\"id\":\"A\",\"name\":\"\xc3\x84\",\"mcc\":\"001\",\"mnc\":\"01\",\"routingNumber\":"
                        "\"+123456789012345\",\"serviceProvider\":\"p\",\"parameters\":\";cic=+44123;x\"}"},
             {"B 1.x", R"({"id":"B 1.x","mnc":"015","text":"a \"b\""})"},
             {"D", R"({"id":"D","routingNumber":"0aF","routingContext":"n.example.COM."})"},
             {"b", R"({"id":"b"})"},
             {"\xc3\x84", "{\"id\":\"\xc3\x84\",\"name\":\"x\"}"},
             {"a", R"({"id":"a"})"}, // not A
             {"B", R"({"id":"B"})"},
             {"AA", R"({"id":"AA"})"},
             {"\xc3", "{\"id\":\"\xef\xbf\xbd\"}"},
         }) {
        std::string json;
        appendNetwork(json, test.id, table.find(test.id));
        EXPECT_EQ(json, test.json);
    }
}

} // namespace
