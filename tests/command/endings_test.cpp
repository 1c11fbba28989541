// How the command ends when it cannot go on: full disks, no threads, Ctrl-C.

#include "tests/support/clouds.h"
#include "tests/support/command.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

using namespace kelpatest;
using std::chrono::milliseconds;

TEST_F(Command, LeavesNoPartOfAFileOnAFullDisk) {
    for (Words const& words :
         {Words{"generate", "cloud", "--count", "100000", "-o", "c.ply"},
          Words{"generate", "cloud", "--count", "100000", "--ascii", "-o", "c.ply"},
          Words{"render", "g.ply", "--samples", "1", "-o", "g.ppm"},
          Words{"render", "g.ply", "--samples", "1", "-o", "g.png"},
          Words{"render", "g.ply", "--samples", "1", "-o", "g.exr"}}) {
        SCOPED_TRACE(words.back());
        write("g.ply", plyOf("x y z radius", {sphere(0, 0)}));
        Answer const answer = run(words, 2000);
        EXPECT_EQ(answer.code, 4);
        EXPECT_TRUE(contains(answer.err, words.back() + ": ")) << answer.err;
        EXPECT_EQ(others({"g.ply"}), Words{});
    }
    // Standard output may be full as well, at once or when more comes than its buffer holds.
    Words const values(1000, "1");
    std::string names = "x y z";
    for (std::size_t i = 3; i < values.size(); ++i)
        names += fmt::format(" column{}", i);
    write("wide.ply", plyOf(names, {fmt::format("{}", fmt::join(values, " "))}));
    for (char const* const words : {"info g.ply -q", "info wide.ply -q", "--help"}) {
        int const status = inShell(fmt::format("{} >/dev/full", words));
        EXPECT_EQ(WEXITSTATUS(status), 4) << words << read("stderr");
    }
}

TEST_F(Command, WorksWithoutAnybodyToTell) {
    std::string const make = "generate cloud --count 200000 --ascii -o ";
    EXPECT_EQ(inShell(make + "told.ply"), 0);
    for (char const* const ears : {"2>&-", "2>/dev/full", "2>&1 | true"}) {
        SCOPED_TRACE(ears);
        EXPECT_EQ(inShell(fmt::format("{} c.ply {}; code=$?; cmp told.ply c.ply || code=99; "
                                      "rm c.ply; (exit $code)",
                                      make, ears)),
                  0);
    }
    EXPECT_EQ(others({"told.ply"}), Words{});
}

TEST_F(Command, MakesDoWithTheThreadsThatTheSystemGrants) {
    write("g.ply", plyOf("x y z radius", {sphere(0, 0)}));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer itself takes more addresses than the limit allows";
#endif
    // Room for the stacks of about a hundred threads.
    int const status = inShell("render g.ply -n 4096 --samples 1 -o g.ppm", "ulimit -v 1000000");
    EXPECT_EQ(WEXITSTATUS(status), 0) << read("stderr");
}

TEST_F(Command, SaysInItsOwnWordsThatMemoryRanOut) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer itself takes more addresses than the limits allow";
#endif
    ASSERT_EQ(run({"generate", "cloud", "--count", "200000", "-q", "-o", "c.ply"}).code, 0);
    auto const codeWithin = [this](int megabytes) {
        return WEXITSTATUS(inShell("render c.ply -q -n 1 --size 16x16 --samples 1 -o c.ppm",
                                   fmt::format("ulimit -v {}", megabytes * 1024)));
    };
    int tooLittle = 40, enough = 1000; // megabytes
    while (enough - tooLittle > 1) {
        int const middle = (tooLittle + enough) / 2;
        (codeWithin(middle) == 0 ? enough : tooLittle) = middle;
    }
    // What lacks last is memory for the tree, whose own words name parts of the library.
    for (int const lacking : {1, 2, 3, 4, 5, 6}) {
        EXPECT_EQ(codeWithin(enough - lacking), 1) << lacking;
        EXPECT_EQ(read("stderr"), "kelpa: out of memory; fewer particles or a smaller picture "
                                  "need less\n");
    }
    EXPECT_EQ(others({"c.ply", "c.ppm"}), Words{});
}

#if defined(__SANITIZE_THREAD__)
constexpr bool isThreadSanitized = true;
#else
constexpr bool isThreadSanitized = false;
#endif

/// Whether a process has got as far as to look after SIGINT itself.
bool catchesInterrupts(pid_t process) {
    std::ifstream status(fmt::format("/proc/{}/status", process));
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("SigCgt:"))
            return (std::stoull(line.substr(7), nullptr, 16) >> (SIGINT - 1) & 1U) != 0;
    return false;
}

TEST_F(Command, StopsOnInterruptWithinASecondAndLeavesNothing) {
    run({"generate", "cloud", "--count", "200000", "-o", "c.ply"});
    // Without radii: their search for neighbours takes a second or more.
    std::vector<float> coordinates(9'000'000);
    Random random(1);
    std::generate(coordinates.begin(), coordinates.end(), [&random] { return random.unit(); });
    write("n.ply",
          "ply\nformat binary_little_endian 1.0\nelement vertex 3000000\nproperty float x\n"
          "property float y\nproperty float z\nend_header\n" +
              std::string(reinterpret_cast<char const*>(coordinates.data()),
                          coordinates.size() * sizeof(float)));
    for (char const* const pipe : {"idle.ply", "mute.ply"})
        ASSERT_EQ(mkfifo((folder / pipe).c_str(), 0600), 0);
    int const writer = open((folder / "mute.ply").c_str(), O_RDWR | O_CLOEXEC); // writes nothing
    struct Case {
        Words words;
        bool saysWhenReady; ///< prints statistics when the tree is built
        int signal = SIGINT;
    };
    for (auto const& [words, saysWhenReady, signal] :
         {Case{{"render", "c.ply", "-q", "--stats", "--samples", "4096", "-o", "c.ppm"}, true},
          Case{{"render", "c.ply", "-q", "--samples", "4096", "-o", "c.ppm"}, false, SIGTERM},
          Case{{"info", "n.ply", "-q"}, false, SIGXCPU}, Case{{"info", "idle.ply", "-q"}, false},
          Case{{"generate", "cloud", "--count", "9", "-q", "-o", "idle.ply"}, false, SIGQUIT},
          Case{{"generate", "galaxy", "--count", "20000000", "-q", "-o", "big.ply"},
               false,
               SIGHUP}}) {
        SCOPED_TRACE(words.back());
        if (isThreadSanitized && words[1] == "idle.ply")
            continue; // it keeps the signal to itself until the pipe is opened
        fs::remove(folder / "stderr");
        pid_t const child = start(words);
        for (int waits = 0; waits < 600; ++waits) {
            if (saysWhenReady ? !read("stderr").empty() : catchesInterrupts(child))
                break;
            std::this_thread::sleep_for(milliseconds{100});
        }
        std::this_thread::sleep_for(milliseconds{150});
        auto const begin = std::chrono::steady_clock::now();
        kill(child, signal);
        Answer const answer = finish(child);
        EXPECT_LT(std::chrono::steady_clock::now() - begin,
                  milliseconds{isThreadSanitized ? 5000 : 1000});
        EXPECT_EQ(answer.code, 130);
        EXPECT_TRUE(contains(answer.err, "kelpa: interrupted\n")) << answer.err;
        EXPECT_EQ(others({"c.ply", "n.ply", "idle.ply", "mute.ply"}), Words{});
    }
    close(writer);
}

} // namespace
