// The daemon's data file: who may rewrite it, what a delta must not overwrite, and what is told about it.
#include "host/service/DataFileLock.h"
#include "tests/DaemonSite.h"
#include "tests/ProgramRun.h"

#include <filesystem>
#include <sys/stat.h>

namespace {

char const* const deltaCM = "00448 20200101000000 ECHO\n";

TEST(DataFileLockTest, OneHolderByAnyNameUntilItEnds) {
    TemporaryFolder const folder;
    std::string const file = folder.write("data", "");
    std::filesystem::create_symlink("data", folder.file("link"));
    std::string const process = "process " + std::to_string(getpid()) + " holds the lock on ";
    auto first = std::make_unique<nphost::DataFileLock>(file);
    EXPECT_TRUE(first->take());
    auto second = std::make_unique<nphost::DataFileLock>(folder.file("link"));
    EXPECT_FALSE(second->take());
    EXPECT_EQ(second->reason(), process + folder.file(".data.lock"));
    std::filesystem::rename(folder.write("new", ""), file); // as the file is replaced
    EXPECT_FALSE(second->take());
    first.reset();
    EXPECT_TRUE(second->take());
    EXPECT_EQ(second->reason(), "");
    std::filesystem::remove(folder.file(".data.lock"));
    {
        nphost::DataFileLock third(file);
        EXPECT_TRUE(third.take());
        EXPECT_FALSE(second->take()) << "its file is gone, and with it the lock";
        second.reset();
        EXPECT_TRUE(std::filesystem::exists(folder.file(".data.lock"))) << "the third's";
    }
    EXPECT_TRUE(nphost::DataFileLock(file).take());
    EXPECT_TRUE(nphost::DataFileLock("").take());
}

// In a folder that is closed to the account the data file itself is locked; somebody else's lock file is respected.
TEST(DataFileLockTest, WhereNoLockFileCanBeMade) {
    constexpr uid_t nobody = 65534;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    TemporaryFolder const folder;
    std::string const file = folder.write("data", "");
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    ASSERT_EQ(seteuid(nobody), 0);
    {
        nphost::DataFileLock first(file);
        nphost::DataFileLock second(file);
        EXPECT_TRUE(first.take()) << first.reason();
        EXPECT_FALSE(second.take());
        EXPECT_EQ(second.reason(), "another process holds the lock on " + file);
        ASSERT_EQ(seteuid(0), 0);
        std::filesystem::rename(folder.write("new", ""), file);
        ASSERT_EQ(seteuid(nobody), 0);
        EXPECT_TRUE(second.take()) << "the first has the lock of a file that is gone";
        EXPECT_FALSE(first.take());
    }
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(chmod(folder.write(".data.lock", "").c_str(), 0600), 0);
    ASSERT_EQ(seteuid(nobody), 0);
    nphost::DataFileLock third(file);
    EXPECT_FALSE(third.take());
    EXPECT_TRUE(contains(third.reason(), ".data.lock cannot be opened: Permission denied"));
    ASSERT_EQ(seteuid(0), 0);
}

TEST(DataFileTest, ADeltaDoesNotOverwriteWhatWasNotLoaded) {
    std::string const newer = "00449 20200101000000 NEWER\n";
    Site site;
    std::string const delta = site.folder.write("delta", deltaCM);
    site.start();
    ASSERT_EQ(chmod(site.data.c_str(), 0640), 0); // is no new content
    expectResult(site.ctl({"delta", "--wait", delta}), 0, "done", "as loaded");
    expectResult(site.ctl({"delta", "--wait", delta}), 0, "done", "as written");
    EXPECT_FALSE(site.status().at("dataFile").at("changed"));
    std::filesystem::rename(site.folder.write("new", newer), site.data);
    for (Arguments const& command :
         {Arguments{"delta", "--wait", delta}, {"update", "AdditionalNumPortData=" + delta}}) {
        expectResult(site.ctl(command), 1, "ERR_HOST_DELTA_REFUSED", command.front());
        EXPECT_EQ(contentOf(site.data), newer);
    }
    EXPECT_TRUE(site.status().at("dataFile").at("changed"));
    EXPECT_TRUE(contains(site.ctl({"status"}).out, "since it was loaded or last written"));
    expectResult(site.ctl({"delta", "--wait", "--force", delta}), 0, "done", "forced");
    EXPECT_FALSE(contains(contentOf(site.data), "NEWER"));
    std::filesystem::rename(site.folder.write("new", newer), site.data);
    expectResult(site.ctl({"reload", "--wait"}), 0, "done", "reload");
    expectResult(site.ctl({"update", "AdditionalNumPortData=" + delta}), 0, "true", "after the reload");
    EXPECT_TRUE(contains(contentOf(site.data), "NEWER") && contains(contentOf(site.data), "ECHO"));
    EXPECT_EQ(site.stop(), 0);
}

TEST(DataFileTest, OneOfTwoDaemonsAddsDeltas) {
    Site first;
    std::string const delta = first.folder.write("delta", deltaCM);
    first.start();
    Site second;
    std::filesystem::remove(second.data);
    std::filesystem::create_symlink(first.data, second.data);
    std::string const ownDelta = second.folder.write("delta", deltaCM);
    second.start();
    std::string const holder = "process " + first.status().at("process").dump() + " holds the lock on ";
    EXPECT_TRUE(contains(second.log(), "INF_HOST_NO_DELTAS") && contains(second.log(), holder));
    EXPECT_TRUE(contains(second.ctl({"status"}).out, "no deltas:      " + holder));
    for (Arguments const& command : {Arguments{"delta", "--wait", "--force", ownDelta},
                                     {"update", "--force", "AdditionalNumPortData=" + ownDelta}})
        expectResult(second.ctl(command), 1, "ERR_HOST_DELTA_REFUSED", command.front());
    expectResult(second.ctl({"lookup", "00447700900123"}), 0, "BRAVO", "look-up");
    expectResult(first.ctl({"delta", "--wait", delta}), 0, "done", "the first");
    EXPECT_EQ(first.stop(), 0);
    expectResult(second.ctl({"delta", "--wait", ownDelta}), 1, "is no longer what was loaded", "what the first wrote");
    expectResult(second.ctl({"reload", "--wait"}), 0, "done", "reload");
    expectResult(second.ctl({"delta", "--wait", ownDelta}), 0, "done", "alone");
    EXPECT_TRUE(second.status().at("dataFile").at("lockedBy").is_null());
    EXPECT_EQ(second.stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(first.folder.file(".data.dat.lock")));
}

// Until the file has them. A folder in its place cannot be written.
TEST(DataFileTest, RecordsThatStandInNoFileAreToldOf) {
    Site site;
    std::string const delta = site.folder.write("delta", deltaCM);
    site.start();
    std::string const file = site.data;
    for (char const* const remedy : {"delta", "reload"}) {
        std::filesystem::rename(file, site.folder.file("before"));
        std::filesystem::create_directory(file);
        for (Arguments const& command :
             {Arguments{"delta", "--wait", "--force", delta}, {"update", "--force", "AdditionalNumPortData=" + delta}})
            EXPECT_EQ(site.ctl(command).status, 1) << remedy;
        expectResult(site.ctl({"status"}), 0, "NOT SAVED:", remedy);
        EXPECT_TRUE(contains(site.ctl({"status"}).out, "cannot write it: "));
        std::filesystem::remove(file);
        bool const byDelta = remedy == std::string("delta");
        if (!byDelta)
            std::filesystem::rename(site.folder.file("before"), file);
        expectResult(byDelta ? site.ctl({"delta", "--wait", delta}) : site.ctl({"reload", "--wait"}), 0, "done",
                     remedy);
        EXPECT_FALSE(site.status().at("unsaved"));
    }
    EXPECT_EQ(site.stop(), 0);
}

// The data file is mounted by itself, as it often is in a container; a load was killed before.
TEST(DataFileTest, TheStartAndTheStatusSayHowItIsRewritten) {
    Site site;
    std::string const delta = site.folder.write("delta", deltaCM);
    site.folder.write(".data.dat.999999999-0.tmp", "half");
    Result const result = runShell(
        site.folder, "unshare -m sh -c 'mount --make-rprivate / && mount --bind data.dat data.dat' || exit 77; "
                     "unshare -m sh -c 'mount --make-rprivate / && mount --bind data.dat data.dat && { "
                     "nphost run --config nphost.toml --log-file log & daemon=$!; "
                     "timeout 60 sh -c \"until nphost ctl --socket s status; do :; done\" 2>/dev/null; "
                     "nphost ctl --socket s delta --wait delta; kill $daemon; wait $daemon; }'");
    if (result.status == 77)
        GTEST_SKIP() << "nothing can be mounted here";
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "overwrites it in place; a crash in that moment can lose it: cannot replace it:"))
        << result.out;
    EXPECT_TRUE(contains(result.out, "INF_FILE_WRITTEN_IN_PLACE")) << result.out;
    EXPECT_TRUE(contains(site.log(), "INF_HOST_REWRITE") && contains(site.log(), "it is overwritten in place"));
    EXPECT_TRUE(contains(site.log(), "INF_HOST_LEFTOVERS"));
    EXPECT_FALSE(std::filesystem::exists(site.folder.file(".data.dat.999999999-0.tmp")));
    EXPECT_TRUE(contains(contentOf(site.data), "ECHO"));
}

} // namespace
