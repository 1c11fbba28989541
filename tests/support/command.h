// Runs the real command in a folder of its own, for tests that look at what its user would see.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kelpatest {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

struct Answer {
    int code; ///< exit code, or 1000 + the signal that ended it
    std::string out;
    std::string err;
};

struct Picture {
    int width = 0;
    int height = 0;
    std::string bytes; ///< three per pixel
};

class Command : public ::testing::Test {
  protected:
    Command() {
        fs::remove_all(folder);
        fs::create_directory(folder);
    }
    ~Command() override { fs::remove_all(folder); }

    std::string read(std::string const& name) const {
        std::ifstream file(folder / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void write(std::string const& name, std::string const& content) const {
        std::ofstream(folder / name, std::ios::binary) << content;
    }

    /// Starts the command in the folder; no file that it writes may grow beyond `maxBytes`.
    pid_t start(Words words, rlim_t maxBytes = RLIM_INFINITY) const {
        words.insert(words.begin(), "kelpa");
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        pid_t const child = fork();
        if (child != 0)
            return child;
        rlimit const limit{maxBytes, maxBytes};
        int const flags = O_WRONLY | O_CREAT | O_TRUNC;
        bool const isReady = chdir(folder.c_str()) == 0 &&
                             dup2(open("stdout", flags, 0600), STDOUT_FILENO) >= 0 &&
                             dup2(open("stderr", flags, 0600), STDERR_FILENO) >= 0 &&
                             setrlimit(RLIMIT_FSIZE, &limit) == 0;
        if (isReady)
            execv(KELPA_COMMAND, arguments.data());
        _exit(99);
    }
    Answer finish(pid_t child) const {
        int status = 0;
        waitpid(child, &status, 0);
        int const code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        return {code, read("stdout"), read("stderr")};
    }
    Answer run(Words const& words, rlim_t maxBytes = RLIM_INFINITY) const {
        return finish(start(words, maxBytes));
    }

    /// Runs the command with redirections, after another one; returns as `std::system` does.
    int inShell(std::string const& words, std::string const& before = "true") const {
        return std::system(fmt::format("cd '{}' && {} && '{}' {} 2>stderr", folder.string(), before,
                                       KELPA_COMMAND, words)
                               .c_str());
    }

    /// Renders a small picture, on two threads unless told otherwise, and reads it back.
    Picture render(Words words) const {
        Words const usual = {"--size", "70x50",         "-o", "picture.ppm", "--samples",
                             "4",      "--reproducible"};
        words.insert(words.begin(), "render");
        words.insert(words.end(), usual.begin(), usual.end());
        Answer const answer = run(words);
        EXPECT_EQ(answer.code, 0) << answer.err;
        Picture picture;
        std::istringstream file(read("picture.ppm"));
        std::string magic;
        int maximum = 0;
        file >> magic >> picture.width >> picture.height >> maximum;
        EXPECT_EQ(magic + std::to_string(maximum), "P6255");
        file.get();
        picture.bytes.assign(std::istreambuf_iterator<char>(file), {});
        EXPECT_EQ(picture.bytes.size(),
                  3 * static_cast<std::size_t>(picture.width * picture.height));
        return picture;
    }

    /// What is in the folder beside what a test put there, in order.
    Words others(Words const& known) const {
        Words names;
        for (auto const& entry : fs::directory_iterator(folder)) {
            std::string const name = entry.path().filename().string();
            if (name != "stdout" && name != "stderr" &&
                std::find(known.begin(), known.end(), name) == known.end())
                names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path const folder =
        fs::path(::testing::TempDir()) / ("command-" + std::to_string(getpid()));
};

inline std::string plyOf(std::string const& properties, Words const& rows) {
    std::string text = fmt::format("ply\nformat ascii 1.0\nelement vertex {}\n", rows.size());
    std::istringstream names(properties);
    for (std::string name; names >> name;)
        text += fmt::format("property {} {}\n", name == "id" ? "int" : "float", name);
    return text + "end_header\n" + fmt::format("{}\n", fmt::join(rows, "\n"));
}

/// Sphere `i` of a row of spheres that do not touch, pushed along z.
inline std::string sphere(int i, double z, std::string const& more = "") {
    return fmt::format("{} {} {} 0.4 {}", i % 8, i / 8, z, more);
}

inline bool contains(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
}

} // namespace kelpatest
