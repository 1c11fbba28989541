// One browser: what it wants to see, and the thread that renders it.
#include "view/session.h"

#include "pipeline/imagefile/encoders.h"
#include "pipeline/picture/tileorder.h"

#include "view/commandline.h"
#include "view/jpeg.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace pipeline::view {

namespace {

// A camera that has not moved for so long is at rest, whatever the page says.
constexpr std::chrono::milliseconds rest{150};
// So many pictures may be on their way: one is shown while the next one comes.
constexpr std::uint64_t mostUnderWay = 2;
// Who has not told for so long that a picture is shown will not.
constexpr std::chrono::milliseconds patience{1000};

using Time = std::chrono::steady_clock::time_point;
double millisecondsFrom(Time begin, Time end = std::chrono::steady_clock::now()) {
    return std::chrono::duration<double, std::milli>(end - begin).count();
}

/// Beyond so many particles a look at all of them takes longer than a page may wait.
Picture::Sky skyFor(Scene const& scene) {
    constexpr std::size_t most = 1000000;
    return scene.first->positions.size() > most ? Picture::Sky::traced : Picture::Sky::leftOut;
}

/// Without occlusion and shadows.
LightOptions movingLight(LightOptions light) {
    if (light.shade == LightOptions::Shade::ao)
        light.shade = LightOptions::Shade::lit;
    light.shadows = false;
    return light;
}

ImageOptions withoutChannels(ImageOptions image) {
    image.depth = image.normal = image.id = image.position = false;
    return image;
}

/// Adds samples to all tiles; false when `goOn` ended it.
bool addSamples(Picture const& picture, std::uint32_t first, std::uint32_t count, Image& image,
                int threads, Kelpa::GoOn const& goOn) {
    TileOrder const order(picture.tileCount());
    auto const piece = [&](std::size_t turn, Kelpa::GoOn const& mayGoOn) {
        auto const both = [&] { return goOn() && mayGoOn(); };
        picture.addSamples(order.tileAt(turn), first, count, image, both);
    };
    return Kelpa::doPieces(picture.tileCount(), threads, piece, goOn) && goOn();
}

/// How many samples to add to so many, so that each picture is worth a look.
std::uint32_t nextCount(std::uint32_t done, std::uint32_t all) {
    constexpr std::uint32_t most = 16;
    return std::min({std::max(done, 1U), most, all - done});
}

} // namespace

Session::Session(Stage& shownStage, WantedPicture wanted, int threadCount,
                 std::uint64_t sessionNumber, Outbox::Send how)
    : stage(shownStage), given(std::move(wanted)), threads(threadCount), number(sessionNumber),
      outbox(std::make_shared<Outbox>(std::move(how))) {
    wish.camera = given.camera;
    wish.image = given.image;
    wish.light = given.light;
    wish.background = given.background;
    if (given.hasSize) {
        wish.width = given.image.width;
        wish.height = given.image.height;
    }
    worker = std::jthread([this] { run(); });
}

Session::~Session() {
    end();
}

void Session::end() {
    isEnding = true;
    {
        std::lock_guard const guard(mutex);
        wake.notify_all();
    }
    outbox->close();
}

void Session::tellNews() {
    StageNews const news = stage.news();
    std::vector<int> const frames = stage.frames();
    SceneChoice const chosen = stage.chosen();
    std::uint64_t const version = stage.version();
    std::lock_guard const guard(mutex);
    bool const isTold =
        toldVersion == version && toldFrames == frames.size() && toldChoice == chosen;
    if (!isTold) {
        toldVersion = version;
        toldFrames = frames.size();
        toldChoice = chosen;
        outbox->addText(textOf(StateFacts{stage.shown(), frames, chosen, wish, given.camera,
                                          version, given.hasSize, !given.command.empty(), number}));
    }
    outbox->addText(textOf(news));
    wake.notify_all();
}

Session::Task Session::currentTask() const {
    Task task;
    task.version = stage.version(); // before the scene: what changes after it is seen
    task.shown = stage.shown();
    task.wish = wish;
    task.wished = wished;
    task.content = content;
    return task;
}

bool Session::isCurrent(Task const& task) const {
    return !isEnding && content == task.content && stage.version() == task.version;
}

void Session::run() {
    std::unique_lock guard(mutex);
    while (!isEnding) {
        Task task;
        Turn const turn = nextTurn(guard, task);
        if (turn == Turn::wait)
            continue;
        guard.unlock();
        try {
            turn == Turn::move ? showMoving(task) : refine(task);
        } catch (Interrupted const&) {
            // While it was packed something else was wished for.
        } catch (std::exception const& error) {
            StageNews news;
            news.error = error.what();
            outbox->addText(textOf(news));
            moved = refined = task;
        }
        guard.lock();
    }
}

/// What there is to do; waits when that is nothing.
Session::Turn Session::nextTurn(std::unique_lock<std::mutex>& guard, Task& task) {
    task = currentTask();
    auto const isDone = [&task](Task const& done) {
        return done.shown && done.content == task.content && done.version == task.version;
    };
    if (!task.shown || task.wish.width == 0 || isDone(refined)) {
        wake.wait(guard);
        return Turn::wait;
    }
    auto const now = Clock::now();
    if (!isDone(moved)) {
        bool const isCrowded = pictures - drawn >= mostUnderWay && now < lastSent + patience;
        if (!isCrowded)
            return Turn::move;
        wake.wait_until(guard, lastSent + patience);
        return Turn::wait;
    }
    if (task.wish.isMoving && now < lastMove + rest) {
        wake.wait_until(guard, lastMove + rest);
        return Turn::wait;
    }
    return Turn::refine;
}

/// The camera of the task's picture; tells the page where the program has placed it.
Camera Session::cameraOf(Task const& task) {
    {
        std::lock_guard const guard(mutex);
        if (placed && placedFor == task.content && placedIn.lock() == task.shown)
            return *placed;
    }
    Scene const& scene = task.shown->scene;
    CameraOptions const& options = task.wish.camera;
    Camera const camera = placeCamera(options, task.wish.width, task.wish.height, scene.upAxis,
                                      scene.framed(), scene.origin);
    if (!options.eye || !options.lookAt || !options.up)
        outbox->addText(textOf(camera, task.wish.cameraNumber, *task.shown));
    std::lock_guard const guard(mutex);
    placed = camera;
    placedFor = task.content;
    placedIn = task.shown;
    return camera;
}

/// Sends a picture of one sample, as large as its time allows.
void Session::showMoving(Task const& task) {
    constexpr double wantedMilliseconds = 45.0; // 15 pictures a second, with their way to the eye
    constexpr double narrowest = 96.0;
    auto const begin = Clock::now();
    Camera camera = cameraOf(task);
    camera.width = std::max(1, static_cast<int>(std::lround(task.wish.width * scale)));
    camera.height = std::max(1, static_cast<int>(std::lround(task.wish.height * scale)));
    ImageOptions options = withoutChannels(task.wish.image);
    options.width = camera.width;
    options.height = camera.height;
    options.samples = 1;
    options.crop.reset();
    Picture const picture(task.shown->scene, camera, movingLight(task.wish.light), options,
                          skyFor(task.shown->scene));
    Image image = picture.emptyImage();
    auto const mayGoOn = [this, &task] { return !isEnding && stage.version() == task.version; };
    {
        std::shared_lock const guard(task.shown->colors);
        if (!addSamples(picture, 0, 1, image, threads, mayGoOn))
            return;
    }
    constexpr int quality = 82;
    auto const inAnyCase = [](double, std::uint64_t) {}; // it is small
    std::string const bytes = options.transparent ? pngOf(image, 1.0F, true, inAnyCase)
                                                  : jpegOf(image, 1.0F, quality, inAnyCase);
    moved = task;
    double const took = millisecondsFrom(begin);
    PictureFacts facts;
    facts.width = camera.width;
    facts.height = camera.height;
    facts.ofSamples = task.wish.image.samples;
    facts.milliseconds = took;
    facts.waited = millisecondsFrom(task.wished, begin);
    facts.type = options.transparent ? "image/png" : "image/jpeg";
    send(task, facts, bytes);
    double const least = std::min(1.0, narrowest / task.wish.width);
    scale =
        std::clamp(scale * std::clamp(std::sqrt(wantedMilliseconds / took), 0.6, 1.25), least, 1.0);
}

/// Adds up samples until there are all, or until something changes.
void Session::refine(Task const& task) {
    auto const begin = Clock::now();
    ImageOptions options = withoutChannels(task.wish.image);
    options.width = task.wish.width;
    options.height = task.wish.height;
    LightOptions light = task.wish.light;
    if (!light.aoDistance)
        light.aoDistance = task.shown->occlusionDistance;
    Picture const picture(task.shown->scene, cameraOf(task), light, options,
                          skyFor(task.shown->scene));
    auto sum = std::make_shared<Image>(picture.emptyImage());
    auto const all = static_cast<std::uint32_t>(options.samples);
    auto const mayGoOn = [this, &task] { return isCurrent(task); };
    for (std::uint32_t done = 0; done < all;) {
        std::uint32_t const count = nextCount(done, all);
        {
            std::shared_lock const guard(task.shown->colors);
            if (!addSamples(picture, done, count, *sum, threads, mayGoOn))
                return;
        }
        done += count;
        sendRefined(task, *sum, static_cast<int>(done), begin);
    }
    refined = task;
    std::lock_guard const guard(mutex);
    finished = task;
    finishedImage = std::move(sum);
}

void Session::sendRefined(Task const& task, Image const& sum, int samples,
                          Clock::time_point begin) {
    constexpr std::chrono::milliseconds between{100};
    constexpr int quality = 92;
    int const all = task.wish.image.samples;
    bool const isLast = samples == all;
    {
        std::lock_guard const guard(mutex);
        bool const isSoon = Clock::now() < lastSent + between;
        if (!isLast && samples > 1 && (isSoon || pictures - drawn >= mostUnderWay))
            return;
    }
    bool const isTransparent = task.wish.image.transparent;
    float const gain = static_cast<float>(all) / static_cast<float>(samples);
    PictureFacts facts;
    facts.width = task.wish.width;
    facts.height = task.wish.height;
    facts.samples = samples;
    facts.ofSamples = all;
    facts.type = isLast || isTransparent ? "image/png" : "image/jpeg";
    auto const ask = [&](double, std::uint64_t) {
        if (!isCurrent(task))
            throw Interrupted();
    };
    std::string const bytes = isLast || isTransparent
                                  ? pngOf(sum, isLast ? 1.0F : gain, isTransparent, ask)
                                  : jpegOf(sum, gain, quality, ask);
    facts.milliseconds = millisecondsFrom(begin);
    send(task, facts, bytes);
}

void Session::send(Task const& task, PictureFacts facts, std::string const& bytes) {
    std::lock_guard const guard(mutex);
    facts.number = ++pictures;
    facts.cameraNumber = task.wish.cameraNumber;
    facts.version = task.version;
    lastSent = Clock::now();
    outbox->addPicture(withFacts(facts, bytes));
}

std::optional<Session::Saved> Session::save(bool asExr, Kelpa::GoOn const& goOn) {
    Task task;
    std::shared_ptr<Image const> image;
    {
        std::lock_guard const guard(mutex);
        task = currentTask();
        bool const isFinished =
            finished.shown && finished.content == task.content && finished.version == task.version;
        if (isFinished && !(asExr && task.wish.image.hasAovs()))
            image = finishedImage;
    }
    if (!task.shown || task.wish.width == 0)
        return std::nullopt;
    auto const ask = [&goOn](double, std::uint64_t) {
        if (!goOn())
            throw Interrupted();
    };
    ImageOptions options = asExr ? task.wish.image : withoutChannels(task.wish.image);
    options.width = task.wish.width;
    options.height = task.wish.height;
    if (!image) {
        std::shared_lock const guard(task.shown->colors);
        image = std::make_shared<Image>(
            renderImage(task.shown->scene, cameraOf(task), options, task.wish.light, threads, ask));
    }
    Saved saved;
    saved.name = pictureName(*task.shown) + (asExr ? ".exr" : ".png");
    auto const sink = [&saved](std::string_view some) { saved.bytes += some; };
    if (asExr)
        encodeExr(*image, options.transparent, ExrCompression::zip, sink, ask);
    else
        encodePng(*image, options.transparent, sink, ask);
    return saved;
}

} // namespace pipeline::view
