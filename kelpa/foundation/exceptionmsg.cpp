// Keeps a message without asking for memory.
#include "kelpa/foundation/exceptionmsg.h"

#include <cstdarg>
#include <cstdio>

namespace Kelpa {

ExceptionMsg::ExceptionMsg(char const* format, ...) {
    va_list values;
    va_start(values, format);
    std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
}

ExceptionMsg::~ExceptionMsg() = default;

char const* ExceptionMsg::what() const {
    return message;
}

void throwOutOfMemory() {
    throw ExceptionMsg("[_SequenceBlock] Could not allocate memory");
}

} // namespace Kelpa
