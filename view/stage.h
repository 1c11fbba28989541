// The scene that all browsers look at, and the one thread that changes it.
#pragma once

#include "view/source.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace pipeline::view {

/// What the stage is busy with, for the page.
struct StageNews {
    std::string work;       ///< such as "reading"; empty: nothing
    double fraction = -1.0; ///< of it; below 0: nobody can tell
    std::string error;      ///< why what was chosen last is not shown; empty: it is, or will be
};

/// Holds the scene that is shown, and changes it as browsers choose.
///
/// **Guarantees**: all but the destructor may be called from any thread and return at once.
class Stage {
  public:
    using Choose = std::function<void(SceneChoice&)>;
    using TakeRow = std::function<void(Row const&)>;
    /// Words a failure as the user is to read it.
    using Wording = std::function<std::string(std::exception_ptr)>;

    /// `changed` is called, on the stage's own thread or a chooser's, when there is news.
    Stage(std::unique_ptr<Source> from, SceneChoice first, Wording wording,
          std::function<void()> changed);
    Stage(Stage const&) = delete;
    Stage& operator=(Stage const&) = delete;
    /// Gives up what is going on.
    ~Stage();

    /// Changes what is to be shown. The latest choice counts.
    void choose(Choose const& edit);
    SceneChoice chosen() const;
    /// Reads a frame while another one is shown; unset: none.
    void readAhead(std::optional<int> frame);
    /// Has a particle's row read, and `take` called with it on the stage's thread.
    void askRow(std::shared_ptr<Shown const> of, std::size_t particle, TakeRow take);

    /// Null until the first scene is built.
    std::shared_ptr<Shown const> shown() const;
    std::vector<int> frames() const;
    StageNews news() const;
    /// A number that rises with every change of what is shown.
    std::uint64_t version() const { return changes.load(std::memory_order_relaxed); }
    /// Why there is no first scene; null while it may come.
    std::exception_ptr firstFailure() const;

  private:
    struct RowWanted {
        std::shared_ptr<Shown const> of;
        std::size_t particle;
        TakeRow take;
    };

    void run();
    void showChosen(std::unique_lock<std::mutex>& guard);
    void answerRow(std::unique_lock<std::mutex>& guard);
    void countFrames(std::unique_lock<std::mutex>& guard);
    void loadAhead(std::unique_lock<std::mutex>& guard);
    bool hasAheadToDo() const;
    std::shared_ptr<Shown> makeChosen(SceneChoice const& target);
    void applyColors(Shown& to, SceneChoice const& choice);
    void tell(char const* what, double fraction);
    void fail(std::exception_ptr const& reason);

    std::unique_ptr<Source> const source;
    Wording const words;
    std::function<void()> const onChange;
    std::atomic<std::uint64_t> changes = 0;
    std::atomic<bool> isEnding = false;

    mutable std::mutex mutex; // of all that follows
    std::condition_variable wake;
    SceneChoice wanted;
    std::optional<SceneChoice> failed; ///< not tried again
    std::shared_ptr<Shown> current;
    std::shared_ptr<Shown> ahead;
    std::optional<int> aheadFrame;
    std::deque<RowWanted> rows;
    std::vector<int> frameNumbers;
    bool hasCounted = false;
    StageNews doing;
    std::exception_ptr first;
    std::jthread worker; // last: it uses all the others
};

} // namespace pipeline::view
