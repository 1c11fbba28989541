// kelpa view: particles in the browser.
#include "tool/commands/commands.h"

#include <stdexcept>

#ifdef KELPA_VIEW

#include "tool/options/hints.h"
#include "tool/process/standardstreams.h"
#include "tool/report/failures.h"
#include "tool/report/phases.h"
#include "view/filesource.h"
#include "view/server.h"

#include <fmt/format.h>
#include <spawn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace pipeline::tool {

namespace {

view::WantedScene wantedScene(Options const& options) {
    view::WantedScene wanted;
    ParticleOptions const& particles = options.particles;
    wanted.path = particles.files[0];
    wanted.more = particles.more;
    wanted.read = readOptionsOf(particles);
    wanted.frame = particles.frame;
    wanted.frames = particles.frames;
    wanted.elements = particles.elements;
    wanted.scene = options.scene;
    wanted.tree = options.tree;
    wanted.threads = threadCount(options.run);
    wanted.wayOn = hintText;
    return wanted;
}

view::WantedPicture wantedPicture(Options const& options) {
    view::WantedPicture wanted;
    wanted.camera = options.camera;
    wanted.image = options.image;
    wanted.hasSize = options.view.hasSize;
    wanted.light = options.light;
    wanted.background = options.view.background;
    wanted.color = options.view.color;
    wanted.slices = options.view.slices;
    wanted.command = options.view.words;
    return wanted;
}

view::SceneChoice firstChoice(Options const& options) {
    view::SceneChoice choice;
    choice.frame = options.particles.frame;
    if (!options.particles.frames.empty()) {
        // The least of the range; one that counts from the end is found by the file.
        FrameRange const& range = options.particles.frames[0];
        choice.frame = range.first;
    }
    choice.colorBy = options.scene.color.colorBy;
    choice.colorMap = options.view.colorMap;
    choice.range = options.scene.color.range;
    choice.radiusScale = options.scene.radius.scale;
    return choice;
}

/// Opens the link where the system knows how; the user has it in any case.
void openBrowser(std::string const& link) {
    std::string program = "xdg-open";
    std::string argument = link;
    char* const words[] = {program.data(), argument.data(), nullptr};
    pid_t child = 0;
    if (posix_spawnp(&child, program.c_str(), nullptr, nullptr, words, environ) != 0)
        say("kelpa: note: there is no xdg-open; open the link yourself\n");
}

} // namespace

int runView(Options const& options) {
    auto const wording = [](std::exception_ptr const& reason) { return failureOf(reason).text; };
    view::Address const address{options.view.host, options.view.port};
    view::Server const server(std::make_unique<view::FileSource>(wantedScene(options)),
                              firstChoice(options), wantedPicture(options),
                              threadCount(options.run), address, wording);
    fmt::print("{}\n", server.link());
    finishStandardOutput();
    if (!options.run.quiet)
        say("kelpa: open the link above; Ctrl-C ends\n");
    if (options.view.opensBrowser)
        openBrowser(server.link());
    for (;;) {
        throwIfInterrupted();
        if (std::exception_ptr const failure = server.stage().firstFailure())
            std::rethrow_exception(failure);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace pipeline::tool

#else

namespace pipeline::tool {

int runView(Options const&) {
    throw std::runtime_error("view: this build lacks libcivetweb, libturbojpeg or nlohmann-json; "
                             "in Debian libcivetweb-dev, libturbojpeg0-dev and nlohmann-json3-dev");
}

} // namespace pipeline::tool

#endif
