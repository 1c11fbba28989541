// Pages in the browser, served from within Python: no thread of theirs holds the interpreter's lock
// but while a column or a row of a primitive is asked for.
#include "python/native/views.h"

#include "kelpa/foundation/exceptionmsg.h"

#include "python/native/files.h"
#include "python/native/pictures.h"
#include "python/native/treesource.h"
#include "python/native/wanted.h"
#include "python/native/watch.h"
#include "view/filesource.h"
#include "view/server.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace kelpapython {

namespace {

using pipeline::view::Server;
using pipeline::view::Stage;

/// How a page shows particles until its user wants it otherwise.
struct Show {
    pipeline::view::Address address;
    pipeline::view::WantedPicture picture;
    pipeline::view::SceneChoice choice;
    int threads = 0;

    int threadCount() const {
        return threads > 0 ? threads : std::max(1U, std::thread::hardware_concurrency());
    }
};

/// A failure as the page shows it.
std::string wordingOf(std::exception_ptr const& reason) {
    try {
        std::rethrow_exception(reason);
    } catch (pipeline::InputError const& error) {
        return error.what() + hintText(error.hint);
    } catch (Kelpa::ExceptionMsg const&) {
        return "the tree does not fit in memory";
    } catch (std::bad_alloc const&) {
        return "out of memory";
    } catch (std::exception const& error) {
        return error.what();
    }
}

/// A thing of Python that threads without the interpreter's lock may let go of.
using Held = std::shared_ptr<py::object>;
Held hold(py::object thing) {
    return {new py::object(std::move(thing)), [](py::object* held) {
                py::gil_scoped_acquire const locked;
                delete held;
            }};
}

/// Whether this thread, one of a view's own, asks Python just now.
thread_local bool isAsking = false;

/// Asks Python, on a thread that does not hold its lock. What it raises is said in its words.
template <class Ask> auto askPython(Ask ask) {
    py::gil_scoped_acquire const locked;
    struct Mark {
        Mark() { isAsking = true; }
        ~Mark() { isAsking = false; }
    } const mark;
    try {
        return ask();
    } catch (py::error_already_set const& error) {
        throw std::runtime_error(py::str(error.value()));
    }
}

std::function<pipeline::Attribute(std::string const&)> columnsBy(Held const& function) {
    return [function](std::string const& name) {
        return askPython([&] {
            auto const [values, names] =
                (*function)(name)
                    .cast<std::pair<Array<float>, std::optional<std::vector<std::string>>>>();
            pipeline::Attribute column{name, {values.data(), values.data() + values.size()}};
            if (names) {
                auto table = std::make_shared<pipeline::NameTable>();
                for (std::string const& entry : *names)
                    table->numberOf(entry);
                column.names = std::move(table);
            }
            return column;
        });
    };
}

std::function<pipeline::view::Row(std::int64_t)> rowsBy(Held const& function) {
    return [function](std::int64_t row) {
        return askPython([&] { return (*function)(row).cast<pipeline::view::Row>(); });
    };
}

/// A server that ends with it.
class View {
  public:
    View(std::unique_ptr<pipeline::view::Source> source, Show const& show) {
        try {
            py::gil_scoped_release const unlocked;
            server = std::make_shared<Server>(std::move(source), show.choice, show.picture,
                                              show.threadCount(), show.address, wordingOf);
        } catch (std::runtime_error const& error) {
            PyErr_SetString(PyExc_OSError, error.what());
            throw py::error_already_set();
        }
        address = server->link();
    }
    View(View const&) = delete;
    View& operator=(View const&) = delete;
    ~View() { close(); }

    void close() {
        hasEnded = true;
        std::shared_ptr<Server> ending = std::move(server);
        if (ending && isAsking) { // Python collects its garbage while a view asks it something
            std::thread([last = std::move(ending)]() mutable { last.reset(); }).detach();
            return;
        }
        py::gil_scoped_release const unlocked;
        ending.reset();
    }

    /// Waits for the first scene; throws what there is instead of it.
    void wait(py::object const& progress) {
        struct Waited {
            std::shared_ptr<Server> server;
            ~Waited() {
                py::gil_scoped_release const unlocked; // it may be the last who holds it
                server.reset();
            }
        } const waited{server};
        if (hasEnded)
            throw py::value_error("the view is closed");
        runWatched(progress, "Reading", [&](pipeline::PhaseProgress const& report) {
            Stage const& stage = waited.server->stage();
            while (!stage.shown()) {
                if (hasEnded)
                    throw py::value_error("the view is closed");
                if (std::exception_ptr const failure = stage.firstFailure())
                    std::rethrow_exception(failure);
                report(stage.news().fraction, 0);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }

    std::string const& link() const { return address; }
    bool isClosed() const { return hasEnded; }

  private:
    std::shared_ptr<Server> server;
    std::atomic<bool> hasEnded = false;
    std::string address;
};

std::unique_ptr<View> viewFiles(std::vector<std::string> const& paths, Wanted const& wanted,
                                Show show) {
    pipeline::view::WantedScene scene;
    scene.path = paths.at(0);
    scene.more = {paths.begin() + 1, paths.end()};
    scene.read = wanted.readOptions({});
    scene.frame = show.choice.frame;
    scene.elements = wanted.elements;
    scene.scene = wanted.scene;
    scene.threads = show.threadCount();
    scene.wayOn = hintText;
    show.choice.colorBy = wanted.scene.color.colorBy;
    show.choice.range = wanted.scene.color.range;
    show.choice.radiusScale = wanted.scene.radius.scale;
    return std::make_unique<View>(std::make_unique<pipeline::view::FileSource>(std::move(scene)),
                                  show);
}

std::unique_ptr<View> viewTree(Tree& tree, std::string const& title, char upAxis,
                               std::array<float, 3> const& color, std::vector<std::string> columns,
                               std::optional<Array<std::int64_t>> const& ids, py::object column,
                               py::object row, Show const& show) {
    Told told;
    told.alive = hold(py::cast(tree, py::return_value_policy::reference));
    told.title = title;
    told.upAxis = upAxis;
    told.color = {color[0], color[1], color[2]};
    told.columns = std::move(columns);
    if (ids)
        told.ids.assign(ids->data(), ids->data() + ids->size());
    told.column = columnsBy(hold(std::move(column)));
    told.row = rowsBy(hold(std::move(row)));
    return std::make_unique<View>(
        std::make_unique<TreeSource>(tree, std::move(told), show.threadCount()), show);
}

void defineShow(py::module_& module) {
    py::class_<Show>(module, "Show")
        .def(py::init<>())
        .def_readwrite("threads", &Show::threads)
        .def_property("address", nullptr,
                      [](Show& s, std::pair<std::string, int> const& address) {
                          s.address = {address.first, address.second};
                      })
        .def_property("wish", nullptr,
                      [](Show& s, Wish const& wish) {
                          s.picture.image = wish.image;
                          s.picture.light = wish.light;
                      })
        .def_property("has_size", nullptr, [](Show& s, bool has) { s.picture.hasSize = has; })
        .def_property("camera", nullptr,
                      [](Show& s, pipeline::CameraOptions const& c) { s.picture.camera = c; })
        .def_property("background", nullptr,
                      [](Show& s, std::string const& color) { s.picture.background = color; })
        .def_property("color", nullptr,
                      [](Show& s, std::string const& color) { s.picture.color = color; })
        .def_property(
            "command", nullptr,
            [](Show& s, std::vector<std::string> words) { s.picture.command = std::move(words); })
        .def_property(
            "slices", nullptr,
            [](Show& s, std::vector<std::string> slices) { s.picture.slices = std::move(slices); })
        .def_property("frame", nullptr,
                      [](Show& s, std::optional<int> frame) { s.choice.frame = frame; })
        .def_property("color_by", nullptr,
                      [](Show& s, std::string const& name) { s.choice.colorBy = name; })
        .def_property("colormap", nullptr,
                      [](Show& s, std::string const& name) { s.choice.colorMap = name; })
        .def_property("range", nullptr, [](Show& s, std::optional<std::array<float, 2>> range) {
            s.choice.range = range;
        });
}

} // namespace

void defineViews(py::module_& module) {
    defineShow(module);
    py::class_<View>(module, "View")
        .def_property_readonly("link", &View::link)
        .def_property_readonly("closed", &View::isClosed)
        .def("wait", &View::wait)
        .def("close", &View::close);
    module.def("view_files", &viewFiles);
    module.def("view_tree", &viewTree);
}

} // namespace kelpapython
