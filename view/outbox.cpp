// Messages on their way to one browser.
#include "view/outbox.h"

#include <algorithm>
#include <utility>

namespace pipeline::view {

Outbox::Outbox(Send how)
    : send(std::move(how)), sender([this](std::stop_token const& stop) { run(stop); }) {
}

void Outbox::close() {
    std::lock_guard const guard(closing);
    sender.request_stop();
    if (sender.joinable())
        sender.join();
}

void Outbox::addText(std::string text) {
    add({std::move(text), true});
}

void Outbox::addPicture(std::string bytes) {
    add({std::move(bytes), false});
}

void Outbox::add(Item item) {
    constexpr std::size_t most = 256; // who takes none of so many is gone
    std::lock_guard const guard(mutex);
    if (!item.isText)
        std::erase_if(items, [](Item const& waiting) { return !waiting.isText; });
    if (items.size() < most)
        items.push_back(std::move(item));
    hasItems.notify_one();
}

void Outbox::run(std::stop_token const& stop) {
    std::unique_lock guard(mutex);
    while (hasItems.wait(guard, stop, [this] { return !items.empty(); })) {
        Item const item = std::move(items.front());
        items.pop_front();
        guard.unlock();
        bool const isTaken = send(item.bytes, item.isText);
        guard.lock();
        if (!isTaken)
            return;
    }
}

} // namespace pipeline::view
