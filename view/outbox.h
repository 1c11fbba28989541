// Messages on their way to one browser.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace pipeline::view {

/// Sends messages one behind the other on a thread of its own, so that nobody waits for a slow
/// line.
class Outbox {
  public:
    /// Sends one message; `isText`: else it is a picture. Returns false when nobody takes it.
    using Send = std::function<bool(std::string const& message, bool isText)>;

    explicit Outbox(Send how);
    Outbox(Outbox const&) = delete;
    Outbox& operator=(Outbox const&) = delete;
    ~Outbox() { close(); }

    /// Drops what has not been sent, and whatever follows. Waits for a message that is being sent.
    void close();

    void addText(std::string text);
    /// Adds a picture. One that waits is dropped for it: nobody wants to see it any more.
    void addPicture(std::string bytes);

  private:
    struct Item {
        std::string bytes;
        bool isText;
    };

    void run(std::stop_token const& stop);
    void add(Item item);

    Send const send;
    std::mutex closing;
    std::mutex mutex;
    std::condition_variable_any hasItems;
    std::deque<Item> items;
    std::jthread sender; // last: it uses all the others
};

} // namespace pipeline::view
