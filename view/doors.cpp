// Who may ask the server: token, host and origin.
#include "view/doors.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/random.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>

namespace pipeline::view {

std::string makeToken() {
    unsigned char bytes[16];
    std::size_t filled = 0;
    while (filled < sizeof bytes) {
        ssize_t const got = getrandom(bytes + filled, sizeof bytes - filled, 0);
        if (got < 0 && errno != EINTR)
            throw std::runtime_error("the system gives no random numbers for a token");
        filled += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    std::string token;
    for (unsigned char const byte : bytes)
        token += fmt::format("{:02x}", byte);
    return token;
}

bool takeToken(std::string_view& path, std::string_view token) {
    std::size_t const length = token.size() + 2;
    if (path.size() < length || path[0] != '/' || path[length - 1] != '/')
        return false;
    unsigned differences = 0;
    for (std::size_t i = 0; i < token.size(); ++i)
        differences |=
            static_cast<unsigned char>(path[i + 1]) ^ static_cast<unsigned char>(token[i]);
    if (differences != 0)
        return false;
    path.remove_prefix(length - 1);
    return true;
}

bool isOurHost(std::string_view host, std::string_view listening) {
    bool const isOfColons = !host.empty() && host.front() == '['; // [::1]:8080
    std::size_t const end = host.find(isOfColons ? ']' : ':');
    std::string const name(isOfColons ? host.substr(1, end == host.npos ? 0 : end - 1)
                                      : host.substr(0, end));
    if (name == "localhost" || name == listening)
        return !name.empty();
    unsigned char address[sizeof(in6_addr)];
    return inet_pton(AF_INET, name.c_str(), address) == 1 ||
           inet_pton(AF_INET6, name.c_str(), address) == 1;
}

bool isOurOrigin(char const* origin, std::string_view host) {
    return origin == nullptr || origin == "http://" + std::string(host);
}

} // namespace pipeline::view
