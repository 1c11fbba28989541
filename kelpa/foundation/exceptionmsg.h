// The one exception that hosts must expect.
#pragma once

#include "kelpa/foundation/language.h"

namespace Kelpa {

/// The only exception type of the library: memory that could not be had.
///
/// It is thrown by value and leaves the operation that the host called (`build`, a constructor) on
/// the host's own thread, whichever thread met the failure.
class ExceptionMsg {
  public:
    /// Formats `message` as `printf` does; text beyond 1023 characters is cut off.
    explicit ExceptionMsg(char const* format, ...) __attribute__((format(printf, 2, 3)));
    /// Copies the text.
    ExceptionMsg(ExceptionMsg const&) = default;
    /// Copies the text.
    ExceptionMsg& operator=(ExceptionMsg const&) = default;
    virtual ~ExceptionMsg();

    /// The formatted text, terminated by NUL; lives as long as the exception.
    virtual char const* what() const;

    char message[1024]; ///< ends with NUL
};

/// Reports memory that could not be had, in the one wording that hosts know.
[[noreturn]] void throwOutOfMemory();

} // namespace Kelpa
