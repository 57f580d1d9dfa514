// Files that must survive whatever a command is told to write, and results that are in place when something else fails.
#include "tests/ProgramRun.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>

namespace {

char const* const dataCM = "00441  20200101000000  A\n";
char const* const callsCM = "n,t\n00441,20210101000000\n";

class KeptFilesTest : public testing::Test {
  protected:
    KeptFilesTest() {
        folder.write("data.dat", dataCM);
        folder.write("np.toml", configurationCM);
        folder.write("log.toml", configurationCM + "[host]\nlogFile = \"data.dat\"\n");
        folder.write("logged.toml", configurationCM + "[host]\nlogFile = \"np.log\"\n");
        folder.write("np.log", "");
        folder.write("absent.toml", "[DAT_NumberPortability]\nFileName = \"absent.dat\"\n");
        folder.write("calls.csv", callsCM);
        folder.write("feed.csv", "n,t,o\n1,20200101000000,A\nx,20200101000000,B\n");
        std::filesystem::create_symlink("absent.dat", folder.file("dangling"));
        std::filesystem::create_symlink("dangling", folder.file("chain"));
        std::filesystem::create_symlink("np.toml", folder.file("link"));
        mknod(folder.file("socket").c_str(), S_IFSOCK | 0600, 0);
    }

    Result run(std::string const& command) const {
        return runShell(folder, "ENRICH='nphost enrich --config np.toml --number n --time t'; "
                                "IMPORT='nphost import --map number=n,valid-from=t,network=o'; " +
                                    command);
    }

    TemporaryFolder folder;
};

TEST_F(KeptFilesTest, AreNeverWritten) {
    struct Case {
        char const* command;
        char const* reason;
    };
    for (Case const& test : {
             Case{"$ENRICH --keep calls.csv >> data.dat", "standard output is the data file itself"},
             {"$ENRICH --keep calls.csv >> np.toml", "standard output is the configuration file"},
             {"$ENRICH --keep --output /dev/stdout calls.csv >> link", "standard output is the configuration file"},
             {"$ENRICH --output dangling --rejects absent.dat calls.csv", "the output and the file of rejects"},
             {"$ENRICH --output absent.dat --rejects chain calls.csv", "the output and the file of rejects"},
             {"$IMPORT --config np.toml feed.csv >> np.toml", "standard output is the configuration file"},
             {"$IMPORT --config absent.toml --rejects chain feed.csv", "chain is to be written, but is the data file"},
             {"nphost enrich --config logged.toml --number n --time t --output np.log calls.csv",
              "np.log is to be written, but is the daemon's log"},
             {"$IMPORT --config logged.toml --rejects np.log feed.csv", "np.log is to be written, but is the daemon's"},
             {"$IMPORT --config logged.toml feed.csv >> np.log", "standard output is the daemon's log"},
             {"$IMPORT --output socket feed.csv", "socket cannot be written: it is a socket"},
             {"$ENRICH --output socket --rejects rejects calls.csv", "socket cannot be written: it is a socket"},
             {"$ENRICH --keep --rejects socket calls.csv", "socket cannot be written: it is a socket"},
             {"nphost print --config np.toml --output socket", "socket cannot be written: it is a socket"},
             {"nphost print --config logged.toml --output np.log", "the output np.log is the log file"},
             {"nphost print --config np.toml --output np.toml", "the output np.toml is the configuration file"},
             {"nphost print --config np.toml --output ./link", "the output ./link is the configuration file"},
             {"nphost print --config np.toml >> data.dat", "the output /dev/stdout is the data file itself"},
             {"timeout 60 nphost run --config np.toml --log-file data.dat",
              "the log file data.dat is the data file itself"},
             {"timeout 60 nphost run --config np.toml --log-file link", "the log file link is the configuration file"},
             {"timeout 60 nphost run --config absent.toml --log-file chain",
              "the log file chain is the data file itself"},
             {"timeout 60 nphost run --config log.toml", "data.dat is the data file itself"},
         }) {
        Result const result = run(test.command);
        EXPECT_EQ(result.status, 2) << test.command;
        EXPECT_NE(result.err.find(test.reason), std::string::npos) << test.command << "\n" << result.err;
        EXPECT_EQ(contentOf(folder.file("data.dat")), dataCM) << test.command;
        EXPECT_EQ(contentOf(folder.file("np.toml")), configurationCM) << test.command;
        EXPECT_FALSE(std::filesystem::exists(folder.file("absent.dat"))) << test.command;
    }
}

// The message would be in the file as well, so nothing says why.
TEST_F(KeptFilesTest, AreNotStandardErrorEither) {
    folder.write("bad.toml", "[nonsense]\n");
    for (char const* const text :
         {"nphost lookup --config np.toml 00441 2>> data.dat", "nphost lookup --config np.toml 00441 2>> link",
          "nphost lookup --config bad.toml 00441 2>> bad.toml", "nphost print -v --config np.toml 2>> data.dat",
          "nphost check -v --config np.toml calls.csv 2>> calls.csv", "nphost upcoming --config np.toml 2>> data.dat",
          "nphost diff -v --config np.toml data.dat feed.csv 2>> feed.csv", "$ENRICH --keep calls.csv 2>> calls.csv",
          "$IMPORT feed.csv 2>> feed.csv", "$IMPORT - < feed.csv 2>> feed.csv",
          "timeout 60 nphost run --config np.toml 2>> data.dat", "nphost ctl --config np.toml status 2>> np.toml"}) {
        std::string const command = text;
        std::string const file = command.substr(command.rfind(' ') + 1);
        std::string const before = contentOf(folder.file(file.c_str()));
        EXPECT_EQ(run(command).status, 2) << command;
        EXPECT_EQ(contentOf(folder.file(file.c_str())), before) << command;
    }
}

// A descriptor that is free would be that of the next file, and messages would go into it.
TEST_F(KeptFilesTest, DoNotBecomeStandardDescriptors) {
    EXPECT_EQ(run("$IMPORT --output new.dat feed.csv 2>&-").status, 1);
    EXPECT_EQ(contentOf(folder.file("new.dat")), "1  20200101000000  A\n");
    for (char const* const command : {"$ENRICH --keep calls.csv >&-", "nphost print --config np.toml >&-",
                                      "nphost lookup --config np.toml 00441 >&-", "$IMPORT feed.csv >&-",
                                      "$ENRICH --keep - <&- >&-", "$ENRICH --keep --output new.csv - <&-"})
        EXPECT_EQ(run(command).status, 2) << command;
    EXPECT_EQ(run("$ENRICH --output new.csv calls.csv <&- >&- 2>&-").status, 0);
    EXPECT_EQ(contentOf(folder.file("new.csv")), "n,t,n_network\n00441,20210101000000,A\n");
}

// A folder comes to lie where the result is to be put, while the command waits for its input.
TEST_F(KeptFilesTest, AResultThatCannotBePutInPlaceIsAFailure) {
    for (char const* const command : {"$IMPORT --output new -", "$ENRICH --output new -"}) {
        Result const result = run(
            "{ head -1 feed.csv; timeout 60 sh -c \"until ls -A | grep -q '^[.]new.*tmp$'; do :; done\"; mkdir new; "
            "tail -n +2 feed.csv; } | " +
            std::string(command));
        EXPECT_EQ(result.status, 2) << command;
        EXPECT_NE(result.err.find("new cannot be written: cannot replace it: Is a directory"), std::string::npos)
            << command << "\n"
            << result.err;
        EXPECT_EQ(runShell(folder, "ls -A | grep tmp; rmdir new").out, "");
    }
}

TEST_F(KeptFilesTest, AFileThatMayNotGrowIsAnErrorForEveryCommand) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer writes a file of its own before the program begins";
#endif
    for (char const* const command : {"lookup -c np.toml 00441", "check -c np.toml np.toml", "print -c np.toml",
                                      "diff -c np.toml np.toml np.toml", "--help"})
        EXPECT_EQ(run(("(ulimit -f 0; nphost " + std::string(command) + " > small)").c_str()).status, 2) << command;
}

TEST_F(KeptFilesTest, AreInPlaceThoughTheSummaryIsLost) {
    for (char const* const command : {"$ENRICH --json calls.csv 2> /dev/full", "$IMPORT --json feed.csv 2> /dev/full"})
        EXPECT_EQ(run(command).status, 2) << command;
    for (char const* const command :
         {"$ENRICH --json --output new calls.csv > /dev/full", "$IMPORT --json --output new feed.csv > /dev/full"}) {
        std::filesystem::remove(folder.file("new"));
        Result const result = run(command);
        EXPECT_EQ(result.status, 2) << command;
        EXPECT_NE(result.err.find("No space left on device; the files are written, only the summary is not"),
                  std::string::npos)
            << command << "\n"
            << result.err;
        EXPECT_TRUE(std::filesystem::exists(folder.file("new"))) << command;
    }
}

} // namespace
