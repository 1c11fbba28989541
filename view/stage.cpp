// The scene that all browsers look at, and the one thread that changes it.
#include "view/stage.h"

#include "pipeline/files/errors.h"

#include <utility>

namespace pipeline::view {

namespace {

/// Another choice of particles in place of `before`: the colours of a number stay what they are.
SceneChoice keepingColors(SceneChoice choice, SceneChoice const& before, Shown const* shown) {
    bool const isOfOthers = choice.frame != before.frame || choice.cut != before.cut;
    bool const hasSameColumn = shown != nullptr && shown->choice.colorBy == choice.colorBy;
    if (isOfOthers && !choice.range && hasSameColumn)
        choice.range = shown->scene.colorRange;
    return choice;
}

SceneChoice inFrame(SceneChoice choice, std::optional<int> frame, Shown const* shown) {
    SceneChoice const before = choice;
    choice.frame = frame;
    return keepingColors(std::move(choice), before, shown);
}

} // namespace

Stage::Stage(std::unique_ptr<Source> from, SceneChoice firstChoice, Wording wording,
             std::function<void()> changed)
    : source(std::move(from)), words(std::move(wording)), onChange(std::move(changed)),
      wanted(std::move(firstChoice)), worker([this] { run(); }) {
}

Stage::~Stage() {
    isEnding = true;
    {
        std::lock_guard const guard(mutex);
        wake.notify_all();
    }
    worker.join();
}

void Stage::choose(Choose const& edit) {
    {
        std::lock_guard const guard(mutex);
        SceneChoice next = wanted;
        edit(next);
        if (next == wanted)
            return;
        wanted = keepingColors(std::move(next), wanted, current.get());
        wake.notify_all();
    }
    onChange();
}

SceneChoice Stage::chosen() const {
    std::lock_guard const guard(mutex);
    return wanted;
}

void Stage::readAhead(std::optional<int> frame) {
    std::lock_guard const guard(mutex);
    aheadFrame = frame;
    if (!frame)
        ahead.reset();
    wake.notify_all();
}

void Stage::askRow(std::shared_ptr<Shown const> of, std::size_t particle, TakeRow take) {
    constexpr std::size_t most = 16; // nobody waits for more
    std::lock_guard const guard(mutex);
    if (rows.size() == most)
        rows.pop_front();
    rows.push_back({std::move(of), particle, std::move(take)});
    wake.notify_all();
}

std::shared_ptr<Shown const> Stage::shown() const {
    std::lock_guard const guard(mutex);
    return current;
}

std::vector<int> Stage::frames() const {
    std::lock_guard const guard(mutex);
    return frameNumbers;
}

StageNews Stage::news() const {
    std::lock_guard const guard(mutex);
    return doing;
}

std::exception_ptr Stage::firstFailure() const {
    std::lock_guard const guard(mutex);
    return first;
}

/// Tells what is done, as often as somebody can read it.
void Stage::tell(char const* what, double fraction) {
    {
        std::lock_guard const guard(mutex);
        bool const isKnown = fraction >= 0.0;
        bool const isNews =
            isKnown && (fraction < doing.fraction || fraction >= doing.fraction + 0.01);
        if (doing.work == what && !isNews)
            return;
        doing.work = what;
        doing.fraction = fraction;
    }
    onChange();
}

void Stage::fail(std::exception_ptr const& reason) {
    std::string const text = words(reason);
    std::lock_guard const guard(mutex);
    doing.error = text;
    if (!current)
        first = reason;
}

/// Whether a frame is to be read ahead that is neither shown nor read.
bool Stage::hasAheadToDo() const {
    if (!aheadFrame || !current || current->facts.frame == *aheadFrame)
        return false;
    return !ahead || !(ahead->choice == inFrame(wanted, aheadFrame, current.get()));
}

void Stage::run() {
    std::unique_lock guard(mutex);
    while (!isEnding) {
        bool const isShown = (current && current->choice == wanted) || failed == wanted;
        if (!isShown)
            showChosen(guard);
        else if (!rows.empty())
            answerRow(guard);
        else if (current && !hasCounted)
            countFrames(guard);
        else if (hasAheadToDo())
            loadAhead(guard);
        else
            wake.wait(guard);
    }
}

std::shared_ptr<Shown> Stage::makeChosen(SceneChoice const& target) {
    return source->load(target, [this, &target](char const* what, double fraction) {
        tell(what, fraction);
        std::lock_guard const guard(mutex);
        if (isEnding || !(wanted == target))
            throw Interrupted();
    });
}

/// Gives what is shown other colours, with nobody looking.
void Stage::applyColors(Shown& to, SceneChoice const& choice) {
    Recoloring made = source->recolored(to, choice, [this, &choice](char const* what, double done) {
        tell(what, done);
        std::lock_guard const guard(mutex);
        if (isEnding || !(wanted == choice))
            throw Interrupted();
    });
    ++changes; // whoever renders ends now
    std::unique_lock const alone(to.colors);
    std::lock_guard const guard(mutex);
    to.scene.colors = std::move(made.colors);
    to.scene.color = made.color;
    to.scene.colorColumn = std::move(made.column);
    to.scene.colorRange = made.range;
    to.colored = std::move(made.values);
    to.stops = std::move(made.stops);
    to.choice = choice;
}

void Stage::showChosen(std::unique_lock<std::mutex>& guard) {
    SceneChoice const target = wanted;
    std::shared_ptr<Shown> const before = current;
    std::shared_ptr<Shown> made;
    if (ahead && ahead->choice == target)
        made = std::exchange(ahead, nullptr);
    guard.unlock();
    bool isLost = false;
    try {
        if (!made && before && target.differsInColorsOnly(before->choice))
            applyColors(*before, target);
        else if (!made)
            made = makeChosen(target);
    } catch (Interrupted const&) {
        isLost = true; // somebody has chosen otherwise
    } catch (...) {
        fail(std::current_exception());
        isLost = true;
        guard.lock();
        failed = target;
        guard.unlock();
    }
    guard.lock();
    if (!isLost) {
        if (made)
            current = std::move(made);
        failed.reset();
        doing.error.clear();
    }
    doing.work.clear();
    doing.fraction = -1.0;
    ++changes;
    guard.unlock();
    onChange();
    guard.lock();
}

void Stage::answerRow(std::unique_lock<std::mutex>& guard) {
    RowWanted const asked = std::move(rows.front());
    rows.pop_front();
    SceneChoice const before = wanted;
    guard.unlock();
    try {
        Row const row =
            source->rowOf(*asked.of, asked.particle, [&](char const* what, double done) {
                tell(what, done);
                std::lock_guard const inside(mutex);
                if (isEnding || !(wanted == before))
                    throw Interrupted();
            });
        asked.take(row);
    } catch (std::exception const&) {
        // What the page shows of the particle already is all there is.
    }
    guard.lock();
    doing.work.clear();
    guard.unlock();
    onChange();
    guard.lock();
}

void Stage::countFrames(std::unique_lock<std::mutex>& guard) {
    SceneChoice const before = wanted;
    guard.unlock();
    std::vector<int> numbers;
    bool isDone = true;
    try {
        numbers = source->frames([&](char const* what, double done) {
            tell(what, done);
            std::lock_guard const inside(mutex);
            if (isEnding || !(wanted == before))
                throw Interrupted();
        });
    } catch (Interrupted const&) {
        isDone = false;
    } catch (std::exception const&) {
        // Then there is the frame that is shown.
    }
    guard.lock();
    hasCounted = isDone;
    frameNumbers = std::move(numbers);
    doing.work.clear();
    guard.unlock();
    onChange();
    guard.lock();
}

void Stage::loadAhead(std::unique_lock<std::mutex>& guard) {
    SceneChoice const target = inFrame(wanted, aheadFrame, current.get());
    SceneChoice const before = wanted;
    guard.unlock();
    std::shared_ptr<Shown> made;
    try {
        made = source->load(target, [&](char const*, double) {
            std::lock_guard const inside(mutex);
            bool const isWanted = wanted == target;
            bool const isStillAhead = wanted == before && aheadFrame == target.frame;
            if (isEnding || (!isWanted && !isStillAhead))
                throw Interrupted();
        });
    } catch (Interrupted const&) {
        // Somebody has chosen otherwise.
    } catch (...) {
        // It will be told when the frame is to be shown.
        guard.lock();
        aheadFrame.reset();
        return;
    }
    guard.lock();
    if (made)
        ahead = std::move(made);
}

} // namespace pipeline::view
