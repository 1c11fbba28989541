// What went wrong, as the command says it.
#include "tool/report/failures.h"

#include "kelpa/foundation/exceptionmsg.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/progress.h"

#include "tool/options/hints.h"

#include <cstring>
#include <new>
#include <stdexcept>

namespace pipeline::tool {

namespace {

constexpr char const* outOfMemory = "out of memory; fewer particles or a smaller picture need less";

/// What the library says, without the names of its own parts.
char const* withoutNames(char const* text) {
    if (std::strstr(text, "Could not allocate memory") != nullptr)
        return outOfMemory;
    char const* const end = *text == '[' ? std::strstr(text, "] ") : nullptr;
    return end != nullptr ? end + 2 : text;
}

} // namespace

Failure failureOf(std::exception_ptr const& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (std::invalid_argument const& error) {
        return {wrongUsage, error.what()};
    } catch (InputError const& error) {
        return {unusableInput, error.what() + hintText(error.hint)};
    } catch (OutputError const& error) {
        return {unwritableOutput, error.what()};
    } catch (Interrupted const&) {
        return {interrupted, "interrupted"};
    } catch (Kelpa::ExceptionMsg const& error) {
        return {failed, withoutNames(error.what())};
    } catch (std::bad_alloc const&) {
        return {failed, outOfMemory};
    } catch (std::exception const& error) {
        return {failed, error.what()};
    }
}

} // namespace pipeline::tool
