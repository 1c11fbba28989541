// Who may ask the server.
#pragma once

#include <string>
#include <string_view>

namespace pipeline::view {

/// A token of 128 bits from the system's random numbers, in hexadecimal digits.
std::string makeToken();

/// Whether a path begins with the token; takes the same time wherever they differ. The rest, from
/// the slash behind it on, is left in `path`.
bool takeToken(std::string_view& path, std::string_view token);

/// Whether a request's `Host` is one that the server goes by: a name of this machine alone, the one
/// it was told to listen on, or a number. Names that somebody else's server of names could lead
/// here are none.
bool isOurHost(std::string_view host, std::string_view listening);

/// Whether a request comes from the server's own page, or from no page: its `Origin`, if it has
/// one, is that of its `Host`.
bool isOurOrigin(char const* origin, std::string_view host);

} // namespace pipeline::view
