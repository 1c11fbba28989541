// Bytes on their way to where they are kept, and back.
#pragma once

#include <cstddef>
#include <functional>
#include <span>

namespace Kelpa {

/// Takes bytes, some at a time, in their order. What it throws ends the writing.
using ByteSink = std::function<void(std::span<std::byte const>)>;

/// Fills a span with the next bytes; false when there are not as many left.
using ByteSource = std::function<bool(std::span<std::byte>)>;

} // namespace Kelpa
