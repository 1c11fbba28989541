// What a session's page asks for.
#include "pipeline/files/colornames.h"
#include "pipeline/scene/bunch.h"

#include "view/commandline.h"
#include "view/session.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

namespace pipeline::view {

namespace {

bool isSame(std::optional<Kelpa::Vector> const& a, std::optional<Kelpa::Vector> const& b) {
    return a.has_value() == b.has_value() && (!a || (a->x == b->x && a->y == b->y && a->z == b->z));
}

bool isSame(CameraOptions const& a, CameraOptions const& b) {
    return isSame(a.eye, b.eye) && isSame(a.lookAt, b.lookAt) && isSame(a.up, b.up) &&
           a.view == b.view && a.fov == b.fov && a.ortho == b.ortho && a.zoom == b.zoom;
}

/// The particle that shows at a place of the camera's picture, or nothing.
struct Hit {
    std::size_t particle;
    Vec place; ///< in the scene's coordinates
};
std::optional<Hit> hitAt(Scene const& scene, Camera const& camera, double x, double y) {
    Kelpa::TraceRay const ray = camera.ray(x * camera.width, y * camera.height);
    Bunch bunch;
    bunch.clear();
    bunch.add(0, {ray.origin[0], ray.origin[1], ray.origin[2]}, ray.dir, 0.0, 1e30, 0.5F, -1);
    bunch.trace(*scene.geometry);
    if (bunch.hits.hit[0] == 0)
        return std::nullopt;
    Vec const origin{ray.origin[0], ray.origin[1], ray.origin[2]};
    return Hit{static_cast<std::size_t>(bunch.hits.hitIndex[0]),
               origin + wide(ray.dir) * bunch.hits.hitT[0]};
}

} // namespace

void Session::take(std::string_view text) {
    Message const message = parseMessage(text);
    {
        std::lock_guard const guard(mutex);
        change(message);
        wake.notify_all();
    }
    changeScene(message);
    if (message.pick)
        pick(*message.pick);
    if (message.wantsCommand) {
        std::unique_lock guard(mutex);
        Task const task = currentTask();
        guard.unlock();
        if (task.shown && task.wish.width > 0) {
            std::shared_lock const colors(task.shown->colors);
            outbox->addText(commandText(commandLine(given, task.wish, *task.shown)));
        }
    }
}

void Session::change(Message const& message) {
    if (message.drawn)
        drawn = std::max(drawn, std::min(*message.drawn, pictures));
    bool const isNewSize =
        message.size && !given.hasSize && (*message.size != std::array{wish.width, wish.height});
    if (isNewSize) {
        wish.width = (*message.size)[0];
        wish.height = (*message.size)[1];
        changed();
    }
    if (message.camera)
        changeCamera(message);
    changeLook(message);
}

void Session::changed() {
    ++content;
    wished = Clock::now();
}

void Session::changeCamera(Message const& message) {
    CameraOptions camera = *message.camera;
    bool const isFirst = !camera.view && !camera.eye;
    if (isFirst) {
        camera = given.camera;
    } else {
        camera.upAxis = given.camera.upAxis;
        if (camera.view)
            camera.up = given.camera.up;
    }
    wish.isMoving = message.isMoving;
    if (message.isMoving)
        lastMove = Clock::now();
    if (isSame(camera, wish.camera) && !isFirst && !camera.view) {
        wish.cameraNumber = message.cameraNumber;
        return;
    }
    wish.camera = camera;
    wish.cameraNumber = message.cameraNumber;
    changed();
}

void Session::changeLook(Message const& message) {
    auto const set = [this](auto& member, auto const& value) {
        if (value && member != *value) {
            member = *value;
            changed();
        }
    };
    set(wish.light.shade, message.shade);
    set(wish.image.samples, message.samples);
    set(wish.light.aoSamples, message.aoSamples);
    if (!message.background || *message.background == wish.background)
        return;
    wish.background = *message.background;
    wish.image.transparent = wish.background == "none";
    wish.image.background.reset();
    if (!wish.background.empty() && !wish.image.transparent)
        wish.image.background = parseColor(wish.background);
    changed();
}

void Session::changeScene(Message const& message) {
    std::vector<int> const frames = stage.frames();
    stage.choose([&](SceneChoice& choice) {
        if (message.colorBy && *message.colorBy != choice.colorBy) {
            choice.colorBy = *message.colorBy;
            choice.range.reset();
        }
        if (message.colorMap)
            choice.colorMap = *message.colorMap;
        if (message.hasRange)
            choice.range = message.range;
        if (message.radiusScale)
            choice.radiusScale = *message.radiusScale;
        if (message.hasCut)
            choice.cut = message.cut;
        if (message.frame && *message.frame < frames.size())
            choice.frame = frames[*message.frame];
    });
    if (message.hasAhead) { // behind the choice, which may be the frame that is being read ahead
        bool const isThere = message.ahead && *message.ahead < frames.size();
        stage.readAhead(isThere ? std::optional(frames[*message.ahead]) : std::nullopt);
    }
}

void Session::pick(PickWanted const& wanted) {
    std::unique_lock guard(mutex);
    Task const task = currentTask();
    guard.unlock();
    if (!task.shown || task.wish.width == 0)
        return;
    Scene const& scene = task.shown->scene;
    Picked picked;
    picked.number = wanted.number;
    if (auto const hit = hitAt(scene, cameraOf(task), wanted.x, wanted.y)) {
        std::size_t const i = hit->particle;
        picked.isHit = true;
        picked.particle = i;
        picked.id = scene.idOf(static_cast<std::int64_t>(i));
        picked.position = wide(scene.first->positions[i]) + scene.origin;
        picked.place = hit->place + scene.origin;
        picked.radius = static_cast<double>(scene.first->radii[i]);
        std::shared_lock const colors(task.shown->colors);
        picked.color = i < scene.colors.size() ? scene.colors[i] : scene.color;
    }
    outbox->addText(textOf(picked));
    if (!picked.isHit || !wanted.withRow)
        return;
    stage.askRow(task.shown, picked.particle,
                 [to = std::weak_ptr(outbox), pick = wanted.number](Row const& row) {
                     if (auto const open = to.lock())
                         open->addText(rowText(pick, row));
                 });
}

} // namespace pipeline::view
