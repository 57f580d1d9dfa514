// How files are written when system calls are refused, cut short or interrupted, and what writers leave behind.
#include "framework/STR/FileIo.h"
#include "framework/STR/FileIoTurbo.h"
#include "framework/STR/FilePlace.h"
#include "tests/TemporaryFolder.h"

#include <cstdarg>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <sched.h>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#if !defined(__SANITIZE_THREAD__) // it needs to see these calls itself

namespace {

// What happens to system calls while it lives.
struct Calls {
    Calls() { current = this; }
    Calls(Calls const&) = delete;
    Calls& operator=(Calls const&) = delete;
    ~Calls() { current = nullptr; }

    static bool refuses(std::string const& call) {
        if (current == nullptr)
            return false;
        current->made.push_back(call);
        auto const found = current->refused.find(call);
        if (found == current->refused.end())
            return false;
        errno = found->second;
        return true;
    }
    // Of a write: every second one is interrupted, the others take a byte more than the ones before.
    static ssize_t piece(std::size_t whole) {
        static std::size_t turn = 0;
        if (current == nullptr || !current->interrupted)
            return static_cast<ssize_t>(whole);
        errno = EINTR;
        return ++turn % 2 == 0 ? -1 : static_cast<ssize_t>(std::min(whole, turn));
    }

    std::map<std::string, int> refused; // and the error
    bool interrupted = false;
    std::vector<std::string> made;
    static inline Calls* current = nullptr;
};

long result(bool refused, long done) {
    return refused ? -1 : done;
}

} // namespace

// In place of the C library's, for everything that is linked into this program.
extern "C" {
int open(char const* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    mode_t const mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    bool const beside = (flags & O_CREAT) != 0 || ((flags & O_TMPFILE) == O_TMPFILE && (flags & O_EXCL) == 0);
    if (beside && Calls::refuses("create"))
        return -1;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}
int fsync(int file) {
    struct stat status = {};
    fstat(file, &status);
    bool const refused = Calls::refuses(S_ISDIR(status.st_mode) ? "sync folder" : "sync");
    return static_cast<int>(result(refused, refused ? 0 : syscall(SYS_fsync, file)));
}
int rename(char const* from, char const* to) noexcept {
    bool const refused = Calls::refuses("rename");
    return static_cast<int>(result(refused, refused ? 0 : syscall(SYS_rename, from, to)));
}
int fchown(int file, uid_t owner, gid_t group) noexcept {
    bool const refused = Calls::refuses("chown");
    return static_cast<int>(result(refused, refused ? 0 : syscall(SYS_fchown, file, owner, group)));
}
int fchmod(int file, mode_t mode) noexcept {
    struct stat status = {};
    fstat(file, &status);
    bool const refused = Calls::refuses((status.st_mode & 077) == 0 ? "chmod of a private file" : "chmod");
    return static_cast<int>(result(refused, refused ? 0 : syscall(SYS_fchmod, file, mode)));
}
int fallocate(int file, int mode, off_t from, off_t size) {
    bool const refused = Calls::refuses("allocate");
    return static_cast<int>(result(refused, refused ? 0 : syscall(SYS_fallocate, file, mode, from, size)));
}
ssize_t write(int file, void const* bytes, size_t size) {
    ssize_t const piece = Calls::piece(size);
    return piece < 0 ? piece : syscall(SYS_write, file, bytes, piece);
}
ssize_t pwrite(int file, void const* bytes, size_t size, off_t place) {
    ssize_t const piece = Calls::piece(size);
    bool const refused = place > 0 && Calls::refuses("write on");
    return result(refused || piece < 0, refused || piece < 0 ? 0 : syscall(SYS_pwrite64, file, bytes, piece, place));
}
}

namespace {

class Writing : public testing::Test {
  protected:
    struct Written {
        bool good = false;
        std::string failure, inPlaceReason;
        bool hasVersion = false;
    };
    Written write(std::string const& text, STR::FileIo::InPlace inPlace = STR::FileIo::NEVER) const {
        STR::FileIo writer(BAS::String(file), std::ios_base::out, inPlace);
        writer.stream() << text;
        Written written{writer.closeFile(), {}, {}, false};
        written.failure = writer.failure().str();
        written.inPlaceReason = writer.inPlaceReason().str();
        written.hasVersion = writer.version() == STR::versionOf(BAS::String(file));
        return written;
    }
    ino_t number() const {
        struct stat status = {};
        stat(file.c_str(), &status);
        return status.st_ino;
    }
    std::size_t files() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(folder.path()), std::filesystem::directory_iterator()));
    }

    TemporaryFolder folder;
    std::string const file = folder.write("data", "old");
};

TEST_F(Writing, ReachesTheDiskBeforeItTakesTheName) {
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    using Names = std::vector<std::string>;
    Calls const calls;
    EXPECT_TRUE(write("new").good);
    EXPECT_EQ(calls.made, (Names{"create", "chmod of a private file", "sync", "rename", "sync folder"}));
}

TEST_F(Writing, IsWholeThoughItIsInterrupted) {
    std::string text;
    for (int i = 0; i < 3000; ++i)
        text += std::to_string(i);
    for (bool const inPlace : {false, true}) {
        Calls calls;
        calls.interrupted = true;
        if (inPlace)
            calls.refused = {{"create", EACCES}};
        EXPECT_TRUE(write(text, STR::FileIo::IF_NEEDED).good);
        EXPECT_EQ(contentOf(file), text);
        text += "more";
    }
}

enum Outcome { KEPT, OVERWRITTEN, REPLACED };
using Way = STR::Rewriting;

struct RefusedCall {
    char const* call;
    int error;
    Outcome ifNeeded, never;
    Way::Way foretold;
    char const* reason;
};

constexpr RefusedCall refusedCallsCM[] = {
    {"nothing", 0, REPLACED, REPLACED, Way::REPLACED, ""},
    {"create", EACCES, OVERWRITTEN, KEPT, Way::IN_PLACE, "cannot create a file beside it: Permission"},
    {"create", EROFS, OVERWRITTEN, KEPT, Way::IN_PLACE, "Read-only"},
    {"create", ENOSPC, KEPT, KEPT, Way::IMPOSSIBLE, "No space"},
    {"create", EMFILE, KEPT, KEPT, Way::IMPOSSIBLE, "open files"},
    {"chown", EPERM, OVERWRITTEN, KEPT, Way::IN_PLACE, "cannot keep the owner of it: Operation"},
    {"chmod of a private file", EPERM, OVERWRITTEN, KEPT, Way::IN_PLACE, "cannot keep the mode of it"},
    {"rename", EBUSY, OVERWRITTEN, KEPT, Way::REPLACED, "cannot replace it: Device or resource busy"},
    {"rename", EXDEV, OVERWRITTEN, KEPT, Way::REPLACED, "cannot replace it: Invalid cross-device link"},
    {"rename", EIO, KEPT, KEPT, Way::REPLACED, "cannot replace it: Input/output error"},
    {"sync", EIO, KEPT, KEPT, Way::REPLACED, "cannot sync it"},
    {"sync folder", EIO, REPLACED, REPLACED, Way::REPLACED, "cannot sync the folder of it"},
};

class RefusedWriting : public Writing, public testing::WithParamInterface<STR::FileIo::InPlace> {};

// What happens when a call is refused: to a file that may be overwritten and to one that may not; and what is foretold.
TEST_P(RefusedWriting, ReplacesOverwritesOrKeeps) {
    STR::FileIo::InPlace const inPlace = GetParam();
    for (RefusedCall const& c : refusedCallsCM) {
        SCOPED_TRACE(std::string(c.call) + " " + std::to_string(c.error));
        folder.write("data", "old");
        if (geteuid() == 0) {
            ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
        } else if (c.call == std::string("chown")) {
            continue;
        }
        ino_t const before = number();
        Outcome const expected = inPlace == STR::FileIo::IF_NEEDED ? c.ifNeeded : c.never;
        Calls calls;
        calls.refused = {{c.call, c.error}};
        STR::Rewriting const foretold = STR::rewritingOf(BAS::String(file));
        EXPECT_EQ(foretold.way, c.foretold);
        EXPECT_EQ(foretold.reason.empty(), c.foretold == Way::REPLACED);
        EXPECT_EQ(contentOf(file), "old") << "it is only tried";
        Written const written = write("new content", inPlace);
        EXPECT_EQ(written.good, expected == OVERWRITTEN || c.error == 0) << written.failure;
        EXPECT_EQ(contentOf(file), expected == KEPT ? "old" : "new content");
        EXPECT_EQ(number() == before, expected != REPLACED);
        EXPECT_EQ(written.hasVersion, expected != KEPT);
        EXPECT_NE((expected == OVERWRITTEN ? written.inPlaceReason : written.failure).find(c.reason), std::string::npos)
            << written.inPlaceReason << written.failure;
        EXPECT_EQ(files(), 1U);
    }
}

INSTANTIATE_TEST_SUITE_P(InPlace, RefusedWriting, testing::Values(STR::FileIo::IF_NEEDED, STR::FileIo::NEVER));

TEST_F(Writing, LosesNoByteBeforeThereIsRoomForAll) {
    std::string const longer(3'000'000, 'x');
    struct Case {
        char const* call;
        std::size_t limit; // of a file's size; 0 for none
        bool begun;
        char const* failure;
    };
    signal(SIGXFSZ, SIG_IGN);
    rlimit old = {};
    getrlimit(RLIMIT_FSIZE, &old);
    for (Case const& c : {Case{"allocate", 0, false, "cannot make room for it: No space left on device"},
                          {"nothing", 1000, false, "cannot write it: File too large"},
                          {"sync", 0, true, "cannot sync it: No space left on device; it is not whole now"},
                          {"write on", 0, true, "cannot write it: No space left on device; it is not whole now"}}) {
        folder.write("data", "old");
        Calls calls;
        calls.refused = {{"create", EACCES}, {c.call, ENOSPC}};
        rlimit const little = {c.limit, old.rlim_max};
        STR::FileIo writer(BAS::String(file), std::ios_base::out, STR::FileIo::IF_NEEDED);
        writer.stream() << longer;
        EXPECT_TRUE(writer.syncFile());
        if (c.limit != 0)
            setrlimit(RLIMIT_FSIZE, &little);
        EXPECT_FALSE(writer.closeFile());
        setrlimit(RLIMIT_FSIZE, &old);
        EXPECT_EQ(writer.failure().str(), c.failure);
        EXPECT_EQ(contentOf(file) == "old", !c.begun) << c.failure;
        EXPECT_EQ(writer.version() == STR::FileVersion(), !c.begun);
        EXPECT_EQ(writer.inPlaceReason().empty(), !c.begun) << "what was not touched is not said to have been";
    }
    Calls calls;
    calls.refused = {{"create", EACCES}, {"allocate", EOPNOTSUPP}};
    EXPECT_TRUE(write("short", STR::FileIo::IF_NEEDED).good) << "it has to be tried";
    EXPECT_EQ(contentOf(file), "short");
}

// As a file is given to a container: alone.
TEST_F(Writing, OverwritesWhatIsMountedByItself) {
    pid_t const child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(file.c_str(), file.c_str(), nullptr, MS_BIND, nullptr) != 0)
            _exit(77);
        bool const foretold = STR::rewritingOf(BAS::String(file)).way == STR::Rewriting::IN_PLACE;
        bool const refused = !write("no").good && contentOf(file) == "old";
        _exit(foretold && refused && write("new", STR::FileIo::IF_NEEDED).good && files() == 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "nothing can be mounted here";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(contentOf(file), "new");
}

pid_t endedProcess() {
    pid_t const child = fork();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
    return child;
}

TEST_F(Writing, LeftoversGoWhenNobodyWritesThem) {
    pid_t const gone = endedProcess();
    struct Case {
        std::string name;
        bool stays;
    };
    std::string const of = ".data." + std::to_string(gone);
    std::vector<Case> const cases = {
        {of + "-0.tmp", false},
        {of + "-17.tmp", false},
        {".data." + std::to_string(getpid()) + "-99.tmp", false}, // of a process before this one
        {of + "-1.tmp", true},                                    // locked
        {".data." + std::to_string(getppid()) + "-0.tmp", true},
        {".data.1-0.tmp", true},
        {".data2." + std::to_string(gone) + "-0.tmp", true},
        {of + "-0.tmp2", true},
        {of + "-.tmp", true},
        {of + ".tmp", true},
        {".data.-0.tmp", true},
        {of + "-2.tmp", true}, // a link
    };
    for (Case const& c : cases)
        folder.write(c.name, "text");
    std::filesystem::remove(folder.file(cases.back().name));
    std::filesystem::create_symlink(file, folder.file(cases.back().name));
    int const writer = open(folder.file(of + "-1.tmp").c_str(), O_RDWR);
    ASSERT_EQ(flock(writer, LOCK_EX), 0);
    STR::FileIo own(BAS::String(file), std::ios_base::out);
    own.stream() << "new";
    std::filesystem::create_symlink("data", folder.file("link"));
    EXPECT_EQ(STR::removeLeftovers(BAS::String(folder.file("link"))), 3U);
    for (Case const& c : cases)
        EXPECT_EQ(std::filesystem::is_symlink(folder.file(c.name)) || std::filesystem::exists(folder.file(c.name)),
                  c.stays)
            << c.name;
    EXPECT_TRUE(own.closeFile()) << "the file beside was locked";
    EXPECT_EQ(contentOf(file), "new");
    close(writer);
    EXPECT_EQ(STR::removeLeftovers(BAS::String(file)), 1U);
}

TEST_F(Writing, AVersionShowsAWriteThatHidesItsTime) {
    STR::FileIoTurbo reader;
    ASSERT_TRUE(reader.openFile(BAS::String(file), 8));
    STR::FileVersion const before = reader.version();
    struct stat first = {};
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &first), 0);
    do { // until the file system's clock has moved on
        ASSERT_EQ(chmod(file.c_str(), 0600), 0);
        ASSERT_EQ(stat(file.c_str(), &status), 0);
    } while (status.st_ctim.tv_nsec == first.st_ctim.tv_nsec);
    EXPECT_TRUE(reader.version().hasContentOf(before)) << "owner, mode and links are no content";
    folder.write("data", "new");
    timespec const times[] = {status.st_atim, status.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    EXPECT_EQ(reader.version().modified, before.modified);
    EXPECT_NE(reader.version(), before);
    folder.write("data", "newer");
    EXPECT_FALSE(reader.version().hasContentOf(before));
}

} // namespace

#endif
