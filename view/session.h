// One browser: what it wants to see, and the thread that renders it.
#pragma once

#include "pipeline/picture/render.h"

#include "view/messages.h"
#include "view/outbox.h"
#include "view/stage.h"
#include "view/wanted.h"
#include "view/wish.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace pipeline::view {

/// Shows the stage's scene to one browser, with a camera, light and size of its own.
///
/// While the camera moves it sends pictures of one sample without occlusion, of a size that keeps
/// their rate; at rest the samples are added up, and the last picture is the one that the command
/// makes. Whatever changes ends what is being rendered.
///
/// **Guarantees**: all but the destructor may be called from any thread.
class Session {
  public:
    Session(Stage& stage, WantedPicture given, int threads, std::uint64_t number,
            Outbox::Send send);
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;
    /// Ends the work within some milliseconds.
    ~Session();

    /// Sends nothing any more, and ends the work.
    void end();
    bool isBrowser(std::uint64_t asked) const { return asked == number; }

    /// Does what the page asks for. Throws `BadMessage`, and then nothing changes.
    void take(std::string_view message);
    /// Tells the page what there is new of the stage.
    void tellNews();

    /// The picture as the command would write it, with the name for it; nothing until there is one,
    /// or when `goOn` says no.
    struct Saved {
        std::string name;
        std::string bytes;
    };
    std::optional<Saved> save(bool asExr, Kelpa::GoOn const& goOn);

  private:
    using Clock = std::chrono::steady_clock;
    /// What is to be rendered, taken at one moment.
    struct Task {
        std::shared_ptr<Shown const> shown;
        Wish wish;
        Clock::time_point wished{};
        std::uint64_t content = 0; ///< of the wish
        std::uint64_t version = 0; ///< of the stage
    };

    /// What one turn of the rendering thread is for.
    enum class Turn { wait, move, refine };

    void run();
    Turn nextTurn(std::unique_lock<std::mutex>& guard, Task& task);
    Task currentTask() const; // under `mutex`
    bool isCurrent(Task const& task) const;
    void showMoving(Task const& task);
    void refine(Task const& task);
    void sendRefined(Task const& task, Image const& sum, int samples, Clock::time_point begin);
    void send(Task const& task, PictureFacts facts, std::string const& bytes);
    Camera cameraOf(Task const& task);
    void change(Message const& message); // under `mutex`
    void changed();
    void changeCamera(Message const& message);
    void changeLook(Message const& message);
    void changeScene(Message const& message);
    void pick(PickWanted const& wanted);

    Stage& stage;
    WantedPicture const given;
    int const threads;
    std::uint64_t const number;

    mutable std::mutex mutex; // of all that follows up to the atomics
    std::condition_variable wake;
    Wish wish;
    Clock::time_point wished{}; ///< when the wish was changed
    Clock::time_point lastMove{};
    Clock::time_point lastSent{};
    std::uint64_t pictures = 0; ///< sent
    std::uint64_t drawn = 0;    ///< the last one that the page shows
    std::optional<Camera> placed;
    std::weak_ptr<Shown const> placedIn; ///< for which scene and which wish it is
    std::uint64_t placedFor = 0;
    Task finished; ///< of which the image is
    std::shared_ptr<Image const> finishedImage;
    std::optional<std::uint64_t> toldVersion; ///< what the page has been told of
    std::size_t toldFrames = 0;
    SceneChoice toldChoice;
    std::atomic<std::uint64_t> content = 1; ///< rises with every change of the wish
    std::atomic<bool> isEnding = false;

    // Of the rendering thread alone.
    double scale = 0.5; ///< of moving pictures
    Task moved;         ///< that was shown with one sample
    Task refined;       ///< that was shown with all

    std::shared_ptr<Outbox> const outbox; ///< rows of particles may come when the session is gone
    std::jthread worker;                  // last: it uses all the others
};

} // namespace pipeline::view
