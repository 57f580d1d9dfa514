// Client modules of the daemon, in the framework that it builds around the real module.
#include "host/daemon/ClientModules.h"
#include "host/cli/Sections.h"
#include "host/module/Host.h"
#include "host/service/ReportHub.h"
#include "tests/DaemonSite.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

std::string const workingCM = NP_CLIENT_FOLDER "WORKS.so";

class ClientModulesTest : public testing::Test {
  protected:
    ClientModulesTest() {
        nphost::Configuration configuration = nphost::readConfiguration(site.configuration, nphost::sectionsCM);
        host = std::make_unique<nphost::Host>(std::move(configuration), nphost::CommonOptions{site.configuration},
                                              nphost::LogSettings{true, false, &target, &hub});
        host->start();
        read = hub.last(0);
    }

    // The reports since the last call: "identifier: argument, argument".
    std::vector<std::string> reports() {
        std::vector<std::string> texts;
        nphost::ReportHub::Recent const recent = hub.since(std::exchange(read, hub.last(0)));
        for (nphost::LogReport const& report : recent.reports) {
            texts.push_back(report.identifier + ":");
            for (std::string const& argument : report.arguments)
                texts.back() += " " + argument;
        }
        return texts;
    }

    ConfiguredFolder const site{"00447700900123 20210301020000 BRAVO\n"};
    TemporaryFolder const& folder = site.folder;
    nphost::LogTarget target{folder.file("log")};
    nphost::ReportHub hub;
    std::unique_ptr<nphost::Host> host;
    std::uint64_t read = 0;
};

TEST_F(ClientModulesTest, WhatIsWrongWithOneIsReportedAndTheOthersGoOn) {
    struct Case {
        std::string file;
        char const* report; // its beginning, and
        char const* reason; // its end
    };
    std::vector<Case> const cases = {
        {folder.file("none.so"), "ERR_HOST_CLIENT", "cannot open shared object file: No such file or directory"},
        {folder.file("data.dat"), "ERR_HOST_CLIENT", "file too short"},
        {NP_LIBRARY_FOLDER "/libnpframework.so", "ERR_HOST_CLIENT", "it has no NumberPortabilityClientStart"},
        {NP_CLIENT_FOLDER "REFUSES.so", "ERR_HOST_CLIENT", "it refuses to start"},
        {NP_CLIENT_FOLDER "THROWS.so", "ERR_HOST_CLIENT", "no licence"},
        {NP_CLIENT_FOLDER "THROWS_FOREIGN.so", "ERR_HOST_CLIENT", "no exception of the standard library's"},
        {workingCM, "INF_HOST_CLIENT", "WORKS.so"},
    };
    std::vector<std::filesystem::path> files;
    for (Case const& test : cases)
        files.emplace_back(test.file);
    nphost::ClientModules const clients(files, host->plugIn());
    std::vector<std::string> const said = reports();
    ASSERT_EQ(said.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_TRUE(said[i].starts_with(cases[i].report + (": " + cases[i].file))) << said[i];
        EXPECT_TRUE(said[i].ends_with(cases[i].reason)) << said[i];
        EXPECT_EQ(said[i].find(cases[i].file), said[i].rfind(cases[i].file)) << said[i];
    }
}

TEST_F(ClientModulesTest, WorkBesideReloadsAndAreStoppedInTheReverseOrder) {
    std::string const second = folder.file("second.so");
    std::filesystem::copy_file(workingCM, second);
    {
        nphost::ClientModules const clients({workingCM, second}, host->plugIn());
        BAS::RegistryEntry reload{BAS::String(nphost::plugInNameCM)};
        reload.append(BAS::RegistryEntry("Reload", "TRUE"));
        BAS::ProtectedBool handled;
        for (int i = 0; i < 20; ++i)
            EXPECT_TRUE(host->plugIn().update(reload, handled));
        for (std::string const& report : reports())
            EXPECT_FALSE(report.starts_with("ERR_")) << report;
    }
    EXPECT_EQ(reports(), (std::vector<std::string>{"ERR_HOST_CLIENT: " + second + " stopping hurts",
                                                   "ERR_HOST_CLIENT: " + workingCM + " stopping hurts"}));
}

// The client's loads end with the same events as the requests', which wait one behind the other, one way after the
// other: no request may be taken to have ended by them, for the next would then displace it.
TEST(ClientModulesDaemonTest, LoadsOfAClientEndNobodyElsesRequest) {
    for (char const* const guard : {"", "[host.guard]\nmaxRejectedPercent = 50\n"}) {
        Site site(dataCM, "clients = [\"" NP_CLIENT_FOLDER "LOADS.so\"]\n" + std::string(guard));
        site.folder.write("data.dat.client", "0035 20200101000000 CLIENT\n");
        site.start();
        RawClient sender(site.socket());
        constexpr int rounds = 10;
        for (int round = 0; round < rounds; ++round) {
            std::string const number = "00469000" + std::to_string(round);
            std::string const queued =
                site.folder.write("queued" + std::to_string(round), number + "1 20200101000000 A\n");
            sender.send("{\"version\":1,\"command\":\"reload\",\"wait\":false}\n"
                        "{\"version\":1,\"command\":\"delta\",\"wait\":false,\"file\":\"" +
                        queued + "\"}\n");
            EXPECT_TRUE(contains(sender.line() + sender.line(), "queued"));
            std::string const last = site.folder.write("last", number + "2 20200101000000 A\n");
            Json const answer = Json::parse(site.ctl({"--json", "delta", last, "--wait"}).out);
            EXPECT_EQ(answer.at("succeeded"), true) << guard << answer;
            EXPECT_TRUE(contains(answer.at("reports").dump(), "1 : " + last)) << guard << answer;
        }
        EXPECT_EQ(site.status().at("records"), 4 + 1 + 2 * rounds) << guard;
        EXPECT_EQ(site.stop(), 0) << guard;
    }
}

} // namespace
