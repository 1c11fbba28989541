// Gives the page to browsers, and each of them its session.
#include "view/server.h"

#include "view/doors.h"
#include "view/pagefiles.h"
#include "view/session.h"

#include <civetweb.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace pipeline::view {

namespace {

constexpr int forbidden = 403;

/// Answers and closes.
int answer(mg_connection* connection, int status, char const* reason, std::string_view type,
           std::string_view content, std::string const& more = "") {
    std::string const head = fmt::format("HTTP/1.1 {} {}\r\nContent-Type: {}\r\n"
                                         "Content-Length: {}\r\nCache-Control: no-store\r\n"
                                         "X-Content-Type-Options: nosniff\r\n"
                                         "Referrer-Policy: no-referrer\r\n{}"
                                         "Connection: close\r\n\r\n",
                                         status, reason, type, content.size(), more);
    mg_write(connection, head.data(), head.size());
    mg_write(connection, content.data(), content.size());
    return status;
}

int refuse(mg_connection* connection, std::string_view why) {
    return answer(connection, forbidden, "Forbidden", "text/plain; charset=utf-8", why);
}

/// What the page may load: its own files, from here, and pictures that it was sent. Only pages on
/// this machine, such as notebooks, may hold it.
std::string pagePolicy(std::string_view host) {
    return fmt::format("Content-Security-Policy: default-src 'none'; script-src 'self'; "
                       "style-src 'self'; img-src 'self' blob: data:; connect-src 'self' ws://{}; "
                       "base-uri 'none'; form-action 'none'; "
                       "frame-ancestors 'self' http://localhost:* http://127.0.0.1:*\r\n",
                       host);
}

/// Runs work on a thread of its own: those of civetweb have stacks of 100 kB, and a tile of a
/// picture takes 1 MiB.
template <class Work> auto onRoomyStack(Work work) {
    return std::async(std::launch::async, work).get();
}

char const* headerOf(mg_connection const* connection, char const* name) {
    return mg_get_header(connection, name);
}

} // namespace

class Server::Impl {
  public:
    Impl(std::unique_ptr<Source> source, SceneChoice const& first, WantedPicture wanted,
         int threadCount, Address where, Stage::Wording wording)
        : address(std::move(where)), picture(std::move(wanted)), threads(threadCount) {
        listen();
        {
            std::lock_guard const guard(mutex); // browsers that are quick wait for the stage
            stage = std::make_unique<Stage>(std::move(source), first, std::move(wording),
                                            [this] { tellAll(); });
        }
        tellAll();
    }

    ~Impl() {
        isEnding = true;
        Sessions ending;
        {
            std::lock_guard const guard(mutex);
            ending.swap(sessions);
        }
        for (auto const& [connection, session] : ending)
            session->end();
        stopListening();
        ending.clear();
        stage.reset();
    }

    std::string link() const {
        bool const isEverywhere = address.host == "0.0.0.0" || address.host == "::";
        std::string const host = isEverywhere ? "localhost" : writtenHost();
        return fmt::format("http://{}:{}/{}/", host, address.port, token);
    }

    std::unique_ptr<Stage> stage;

  private:
    using Sessions = std::map<mg_connection const*, std::shared_ptr<Session>>;

    static Impl& self(void* data) { return *static_cast<Impl*>(data); }

    /// The host as a link and the server's options write it.
    std::string writtenHost() const {
        bool const isOfColons = address.host.find(':') != std::string::npos;
        return isOfColons ? "[" + address.host + "]" : address.host;
    }

    void listen() {
        std::string const ports = fmt::format(
            "{}:{}", address.host == "localhost" ? "127.0.0.1" : writtenHost(), address.port);
        std::string const workers = std::to_string(3 * mostBrowsers);
        char const* options[] = {"listening_ports",
                                 ports.c_str(),
                                 "num_threads",
                                 workers.c_str(),
                                 "enable_keep_alive",
                                 "no",
                                 "request_timeout_ms",
                                 "10000",
                                 "websocket_timeout_ms",
                                 "180000", // pages tell each 20 seconds that they are there
                                 "max_request_size",
                                 "16384",
                                 "tcp_nodelay",
                                 "1",
                                 nullptr};
        mg_init_library(0);
        if (mg_check_feature(16) == 0)
            throw std::runtime_error("this libcivetweb was built without WebSockets");
        mg_callbacks callbacks{};
        callbacks.begin_request = [](mg_connection* connection) {
            return self(mg_get_user_data(mg_get_context(connection))).admit(connection);
        };
        callbacks.log_message = [](mg_connection const*, char const*) { return 1; };
        context = mg_start(&callbacks, this, options);
        if (context == nullptr)
            throw std::runtime_error(
                fmt::format("cannot listen on {}, port {}", address.host, address.port));
        mg_server_port port{};
        if (mg_get_server_ports(context, 1, &port) == 1)
            address.port = port.port;
        std::string const socket = "/" + token + "/socket";
        mg_set_websocket_handler(context, socket.c_str(), meet, welcome, take, part, this);
        mg_set_request_handler(
            context, "/", [](mg_connection* c, void* data) { return self(data).serve(c); }, this);
    }

    /// civetweb looks every two seconds whether it is to stop, and whenever somebody comes.
    void stopListening() {
        std::atomic<bool> hasStopped = false;
        std::jthread const stopping([this, &hasStopped] {
            mg_stop(context);
            hasStopped = true;
        });
        std::string const host = address.host == "localhost" ? "127.0.0.1" : address.host;
        char reason[100] = "";
        while (!hasStopped) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (mg_connection* const visit =
                    mg_connect_client(host.c_str(), address.port, 0, reason, sizeof reason))
                mg_close_connection(visit);
        }
    }

    /// Refuses whoever does not come from our own page; 0: may go on.
    int admit(mg_connection* connection) const {
        mg_request_info const* const request = mg_get_request_info(connection);
        char const* const host = headerOf(connection, "Host");
        if (host == nullptr || !isOurHost(host, address.host))
            return refuse(connection, "This host is not served here.\n");
        if (!isOurOrigin(headerOf(connection, "Origin"), host))
            return refuse(connection, "Pages of other servers may not ask here.\n");
        std::string_view path = request->local_uri;
        if (!takeToken(path, token))
            return refuse(connection, "The link's token is missing or wrong.\n");
        return 0;
    }

    int serve(mg_connection* connection) {
        mg_request_info const* const request = mg_get_request_info(connection);
        std::string_view path = request->local_uri;
        if (!takeToken(path, token))
            return refuse(connection, "The link's token is missing or wrong.\n");
        path.remove_prefix(1);
        if (std::strcmp(request->request_method, "GET") != 0)
            return answer(connection, 405, "Method Not Allowed", "text/plain", "Only GET.\n");
        if (path == "picture.png" || path == "picture.exr")
            return savePicture(connection, path == "picture.exr");
        for (PageFile const& file : pageFiles())
            if (path == file.name)
                return answer(connection, 200, "OK", file.type, file.content,
                              pagePolicy(headerOf(connection, "Host")));
        return answer(connection, 404, "Not Found", "text/plain", "There is no such thing.\n");
    }

    int savePicture(mg_connection* connection, bool asExr) {
        char const* const query = mg_get_request_info(connection)->query_string;
        std::uint64_t number = 0;
        if (query != nullptr)
            std::from_chars(query, query + std::strlen(query), number);
        std::shared_ptr<Session> session;
        {
            std::lock_guard const guard(mutex);
            for (auto const& [key, open] : sessions)
                if (open->isBrowser(number))
                    session = open;
        }
        std::optional<Session::Saved> saved;
        try {
            if (session)
                saved = onRoomyStack(
                    [&] { return session->save(asExr, [this] { return !isEnding; }); });
        } catch (std::exception const& error) {
            return answer(connection, 500, "Internal Server Error", "text/plain; charset=utf-8",
                          error.what());
        }
        if (!saved)
            return answer(connection, 404, "Not Found", "text/plain",
                          "There is no picture of this browser.\n");
        return answer(
            connection, 200, "OK", asExr ? "image/x-exr" : "image/png", saved->bytes,
            fmt::format("Content-Disposition: attachment; filename=\"{}\"\r\n", saved->name));
    }

    // What civetweb calls about one browser.

    static int meet(mg_connection const*, void* data) {
        Impl& impl = self(data);
        std::lock_guard const guard(impl.mutex);
        bool const hasRoom = impl.sessions.size() < static_cast<std::size_t>(mostBrowsers);
        return hasRoom && !impl.isEnding ? 0 : 1;
    }

    static void welcome(mg_connection* connection, void* data) {
        Impl& impl = self(data);
        auto const send = [connection](std::string const& message, bool isText) {
            int const kind = isText ? MG_WEBSOCKET_OPCODE_TEXT : MG_WEBSOCKET_OPCODE_BINARY;
            return mg_websocket_write(connection, kind, message.data(), message.size()) > 0;
        };
        std::shared_ptr<Session> session;
        {
            std::lock_guard const guard(impl.mutex);
            if (impl.isEnding || !impl.stage)
                return;
            session = std::make_shared<Session>(*impl.stage, impl.picture, impl.threads,
                                                ++impl.lastNumber, send);
            impl.sessions[connection] = session;
        }
        onRoomyStack([&] { session->tellNews(); });
    }

    static int take(mg_connection* connection, int bits, char* bytes, std::size_t size,
                    void* data) {
        constexpr int wholeText = 0x81; // in one frame
        constexpr int opcode = 0x0F;
        constexpr std::size_t longestPing = 125;
        if ((bits & opcode) == MG_WEBSOCKET_OPCODE_PONG)
            return 1;
        if ((bits & opcode) == MG_WEBSOCKET_OPCODE_PING && size <= longestPing) {
            mg_websocket_write(connection, MG_WEBSOCKET_OPCODE_PONG, bytes, size);
            return 1;
        }
        if (bits != wholeText || size > longestMessage)
            return 0; // closes; a goodbye does as well
        std::shared_ptr<Session> const session = self(data).sessionOf(connection);
        if (!session)
            return 0;
        try {
            onRoomyStack([&] { session->take({bytes, size}); });
        } catch (std::exception const&) {
            // No message of our page, or one that memory does not suffice for: nothing has changed.
        }
        return 1;
    }

    static void part(mg_connection const* connection, void* data) {
        Impl& impl = self(data);
        std::shared_ptr<Session> leaving;
        {
            std::lock_guard const guard(impl.mutex);
            auto const found = impl.sessions.find(connection);
            if (found == impl.sessions.end())
                return;
            leaving = std::move(found->second);
            impl.sessions.erase(found);
        }
        leaving->end(); // whoever else knows it: from now on the connection is gone
    }

    std::shared_ptr<Session> sessionOf(mg_connection const* connection) {
        std::lock_guard const guard(mutex);
        auto const found = sessions.find(connection);
        return found == sessions.end() ? nullptr : found->second;
    }

    void tellAll() {
        Sessions open;
        {
            std::lock_guard const guard(mutex);
            if (!stage)
                return;
            open = sessions;
        }
        for (auto const& [connection, session] : open)
            session->tellNews();
    }

    Address address;
    WantedPicture const picture;
    int const threads;
    std::string const token = makeToken();
    std::atomic<bool> isEnding = false;
    mg_context* context = nullptr;
    std::mutex mutex;
    Sessions sessions;
    std::uint64_t lastNumber = 0;
};

Server::Server(std::unique_ptr<Source> source, SceneChoice const& first,
               WantedPicture const& picture, int threads, Address const& address,
               Stage::Wording wording)
    : impl(std::make_unique<Impl>(std::move(source), first, picture, threads, address,
                                  std::move(wording))) {
}

Server::~Server() = default;

std::string Server::link() const {
    return impl->link();
}

Stage const& Server::stage() const {
    return *impl->stage;
}

} // namespace pipeline::view
