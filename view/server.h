// Gives the page to browsers, and each of them its session.
#pragma once

#include "view/stage.h"
#include "view/wanted.h"

#include <functional>
#include <memory>
#include <string>

namespace pipeline::view {

/// Where the server listens.
struct Address {
    std::string host = "127.0.0.1"; ///< a number or a name of this machine
    int port = 0;                   ///< 0: one that is free
};

/// Shows particles to browsers until it is destroyed.
///
/// Every request needs the token, a name of this machine for its host, and no foreign page for its
/// origin; all others are refused. No request names a file, and none leaves the machine.
class Server {
  public:
    static constexpr int mostBrowsers = 8;

    /// Listens, then reads what `source` gives. Throws `std::runtime_error` when it cannot listen.
    Server(std::unique_ptr<Source> source, SceneChoice const& first, WantedPicture const& picture,
           int threads, Address const& address, Stage::Wording wording);
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;
    /// Ends all work. Browsers are told nothing.
    ~Server();

    /// What a browser is to open: the token is in it.
    std::string link() const;
    Stage const& stage() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace pipeline::view
