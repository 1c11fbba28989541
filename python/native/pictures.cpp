// Renders and writes pictures for Python.
#include "python/native/pictures.h"

#include "python/native/arrays.h"
#include "python/native/watch.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <string>
#include <vector>

#ifdef KELPA_FILES
#include "pipeline/files/errors.h"
#include "pipeline/imagefile/encoders.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/imagefile/jointiles.h"
#include "pipeline/picture/filmplan.h"
#endif

namespace py = pybind11;

namespace kelpapython {

namespace {

using pipeline::Vec;

Triple tripleOf(Vec const& v) {
    return {v.x, v.y, v.z};
}
Vec vecOf(Triple const& t) {
    return {t[0], t[1], t[2]};
}
Kelpa::Vector vectorOf(Triple const& t) {
    return {static_cast<float>(t[0]), static_cast<float>(t[1]), static_cast<float>(t[2])};
}
std::optional<Kelpa::Vector> vectorOf(std::optional<Triple> const& t) {
    return t ? std::optional(vectorOf(*t)) : std::nullopt;
}

/// An array of the picture's rows, with `width` numbers in a pixel, or one if that is 0.
template <class T>
Array<T> channel(pipeline::Image const& image, std::vector<T> const& values, py::ssize_t width) {
    std::vector<py::ssize_t> shape = {image.cropY1 - image.cropY0, image.cropX1 - image.cropX0};
    if (width > 0)
        shape.push_back(width);
    Array<T> array(shape);
    std::copy(values.begin(), values.end(), array.mutable_data());
    return array;
}

/// The camera of one who says where it is and what it looks at.
Placed orient(pipeline::CameraOptions const& options) {
    Kelpa::Vector const somewhere = {0.0F, 0.0F, 0.0F};
    float const size = 1.0F;
    return placedOf(pipeline::placeCamera(options, 1, 1, 'z', {{&somewhere, 1}, {&size, 1}}, {}),
                    {});
}

py::tuple cameraRays(Placed const& placed, int width, int height) {
    pipeline::Camera const camera = cameraOf(placed, width, height, {});
    Array<float> origins({height, width, 3});
    Array<float> directions({height, width, 3});
    float* origin = origins.mutable_data();
    float* direction = directions.mutable_data();
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            Kelpa::TraceRay const ray = camera.ray(x + 0.5, y + 0.5);
            for (int axis = 0; axis < 3; ++axis) {
                *origin++ = static_cast<float>(ray.origin[axis]);
                *direction++ = ray.dir[axis];
            }
        }
    return py::make_tuple(origins, directions);
}

#ifdef KELPA_FILES

template <class T> std::vector<T> valuesOf(std::optional<Array<T>> const& array) {
    return array ? std::vector<T>(array->data(), array->data() + array->size()) : std::vector<T>{};
}

/// The matrices to the camera and on to the picture, the vertical angle, and the seed.
using Facts = std::tuple<std::array<float, 16>, std::array<float, 16>, double, std::uint64_t>;

/// `arraysOf` the other way round. `part` is that of the picture of `size` which the arrays hold.
pipeline::Image imageOf(std::array<int, 2> const& size, std::array<int, 4> const& part,
                        Array<float> const& rgba, std::optional<Array<float>> const& depth,
                        std::optional<Array<float>> const& normal,
                        std::optional<Array<std::int64_t>> const& id,
                        std::optional<Array<float>> const& position,
                        std::vector<std::pair<std::string, Array<float>>> const& layers,
                        std::string const& tileLabel, std::optional<Facts> const& facts) {
    pipeline::Image image;
    image.tileLabel = tileLabel;
    if (facts) {
        pipeline::PictureFacts& told = image.facts.emplace();
        std::tie(told.worldToCamera, told.worldToNdc, told.fov, told.seed) = *facts;
    }
    std::tie(image.width, image.height) = std::pair(size[0], size[1]);
    image.cropX0 = part[0];
    image.cropY0 = part[1];
    image.cropX1 = part[2];
    image.cropY1 = part[3];
    float const* pixel = rgba.data();
    for (py::ssize_t i = 0; i < rgba.size() / 4; ++i, pixel += 4) {
        image.rgb.insert(image.rgb.end(), pixel, pixel + 3);
        image.alpha.push_back(pixel[3]);
    }
    image.depth = valuesOf(depth);
    image.normal = valuesOf(normal);
    image.id = valuesOf(id);
    image.position = valuesOf(position);
    for (auto const& [name, values] : layers) {
        auto const width = values.ndim() > 2 ? static_cast<std::size_t>(values.shape(2)) : 1;
        image.layers.push_back({name, width, valuesOf(std::optional(values))});
    }
    return image;
}

/// A camera that looks at `target`, as a file keeps it.
std::string cameraText(Placed const& placed, Triple const& target) {
    pipeline::Camera const camera = cameraOf(placed, 1, 1, {});
    pipeline::FilmPlan plan;
    plan.camera.keys.push_back(pipeline::keyOf({camera, vecOf(target), camera.up}, {}));
    return textOf(plan);
}

/// The camera that a file has for a frame, what it looks at, and its angle in degrees or, of
/// parallel rays, the height seen.
py::tuple readCamera(std::string const& path, double frame) {
    pipeline::CameraKey const key = pipeline::readPlan(path).camera.at(frame);
    Placed const placed = placedOf(sightOf(key, 1, 1, 1.0, {}).camera, {});
    return py::make_tuple(placed, tripleOf(key.lookAt), key.fov, key.height);
}

/// One of `exrCompressionNames`.
pipeline::ExrCompression compressionOf(std::string const& wanted) {
    for (auto const& [name, compression] : pipeline::exrCompressionNames)
        if (wanted == name)
            return compression;
    return {};
}

void defineFiles(py::module_& module) {
    module.def("camera_text", &cameraText);
    module.def("read_camera", &readCamera);
    py::class_<pipeline::Image>(module, "Image").def(py::init(&imageOf));
    module.def("save_picture", [](std::string const& path, pipeline::Image const& image,
                                  bool withAlpha, std::string const& compression,
                                  py::object const& progress) {
        runWatched(progress, "Writing", [&](pipeline::PhaseProgress const& report) {
            pipeline::writeImage(path, image, withAlpha, report, compressionOf(compression));
        });
    });
    module.def("join", [](std::string const& output, std::vector<std::string> const& tiles,
                          py::object const& progress) {
        runWatched(progress, "Joining", [&](pipeline::PhaseProgress const& report) {
            pipeline::joinTiles(output, tiles, report);
        });
    });
    module.def("png_of", [](pipeline::Image const& image, bool withAlpha) {
        std::string bytes;
        pipeline::encodePng(
            image, withAlpha, [&bytes](std::string_view some) { bytes += some; },
            [](double, std::uint64_t) {});
        return py::bytes(bytes);
    });
    // pybind11 hands it over as a copy. NOLINTNEXTLINE(performance-unnecessary-value-param)
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown)
                std::rethrow_exception(thrown);
        } catch (pipeline::OutputError const& error) {
            PyErr_SetString(PyExc_OSError, error.what());
        }
    });
}

#else

void defineFiles(py::module_&) {
}

#endif

pipeline::LightOptions::Shade shadeOf(std::string const& name) {
    using Shade = pipeline::LightOptions::Shade;
    return name == "ao"          ? Shade::ao
           : name == "lit"       ? Shade::lit
           : name == "headlight" ? Shade::headlight
           : name == "normals"   ? Shade::normals
                                 : Shade::flat;
}

using Names = std::vector<std::string>;

/// What pictures have beside light.
void defineChannels(py::class_<Wish>& wish) {
    wish.def_property("aov", nullptr,
                      [](Wish& w, Names const& names) {
                          auto const has = [&names](char const* name) {
                              return std::find(names.begin(), names.end(), name) != names.end();
                          };
                          w.image.depth = has("depth");
                          w.image.normal = has("normal");
                          w.image.id = has("id");
                          w.image.position = has("position");
                          w.image.velocity = has("velocity");
                      })
        .def_property("columns", nullptr,
                      [](Wish& w, std::vector<std::pair<std::string, Array<float>>> const& all) {
                          for (auto const& [name, values] : all) {
                              auto const width = values.ndim() > 1 ? values.shape(1) : 1;
                              w.image.columns.push_back(name);
                              w.columns.push_back({name,
                                                   static_cast<std::size_t>(width),
                                                   {values.data(), values.data() + values.size()}});
                          }
                      })
        .def_property("planar_depth", nullptr,
                      [](Wish& w, bool planar) { w.image.isDepthPlanar = planar; });
}

void defineWish(py::module_& module) {
    py::class_<Wish> wish(module, "Wish");
    defineChannels(wish);
    wish.def(py::init<>())
        .def_property("size", nullptr,
                      [](Wish& w, std::array<int, 2> size) {
                          std::tie(w.image.width, w.image.height) = std::pair(size[0], size[1]);
                      })
        .def_property("samples", nullptr, [](Wish& w, int samples) { w.image.samples = samples; })
        .def_property("seed", nullptr, [](Wish& w, std::uint64_t seed) { w.image.seed = seed; })
        .def_property("transparent", nullptr,
                      [](Wish& w, bool transparent) { w.image.transparent = transparent; })
        .def_property("background", nullptr,
                      [](Wish& w, std::optional<Triple> const& background) {
                          w.image.background = vectorOf(background);
                      })
        .def_property("cells", nullptr,
                      [](Wish& w, std::vector<CellTuple> const& cells) { w.rods = edgesOf(cells); })
        .def_property(
            "cell_color", nullptr,
            [](Wish& w, std::optional<Triple> const& color) { w.image.rodColor = vectorOf(color); })
        .def_property("crop", nullptr,
                      [](Wish& w, std::optional<std::array<int, 4>> crop) { w.image.crop = crop; })
        .def_property("tile", nullptr,
                      [](Wish& w, std::optional<std::array<int, 2>> const& tile) {
                          w.image.tile.reset();
                          if (tile)
                              w.image.tile = {(*tile)[0], (*tile)[1]};
                      })
        .def_property(
            "shutter", nullptr,
            [](Wish& w, std::array<double, 2> const& shutter) { w.image.shutter = shutter; })
        .def_property("lens", nullptr,
                      [](Wish& w, std::array<double, 2> const& lens) {
                          std::tie(w.lensRadius, w.focus) = std::pair(lens[0], lens[1]);
                      })
        .def_property("shade", nullptr,
                      [](Wish& w, std::string const& name) { w.light.shade = shadeOf(name); })
        .def_property("ao_samples", nullptr,
                      [](Wish& w, int samples) { w.light.aoSamples = samples; })
        .def_property(
            "ao_distance", nullptr,
            [](Wish& w, std::optional<double> distance) { w.light.aoDistance = distance; })
        .def_property("shadows", nullptr,
                      [](Wish& w, std::optional<bool> shadows) { w.light.shadows = shadows; })
        .def_property("color", nullptr,
                      [](Wish& w, Triple const& color) { w.color = vectorOf(color); });
}

void defineCamera(py::module_& module) {
    using Options = pipeline::CameraOptions;
    py::class_<Options>(module, "CameraOptions")
        .def(py::init<>())
        .def_property("view", nullptr,
                      [](Options& o, std::string const& name) {
                          for (auto const& [known, view] : pipeline::viewNames)
                              if (name == known)
                                  o.view = view;
                      })
        .def_readwrite("fov", &Options::fov)
        .def_readwrite("ortho", &Options::ortho)
        .def_readwrite("zoom", &Options::zoom)
        .def_property("eye", nullptr,
                      [](Options& o, std::optional<Triple> const& t) { o.eye = vectorOf(t); })
        .def_property("look_at", nullptr,
                      [](Options& o, std::optional<Triple> const& t) { o.lookAt = vectorOf(t); })
        .def_property("up", nullptr,
                      [](Options& o, std::optional<Triple> const& t) { o.up = vectorOf(t); })
        .def_property("direction", nullptr,
                      [](Options& o, std::optional<Triple> const& t) { o.direction = vectorOf(t); })
        .def_property("up_axis", nullptr, [](Options& o, std::string const& axis) {
            o.upAxis = axis.empty() ? '\0' : axis[0];
        });
    module.def("orient", &orient);
    module.def("camera_rays", &cameraRays);
}

} // namespace

std::vector<pipeline::Rod> edgesOf(std::vector<CellTuple> const& cells) {
    std::vector<pipeline::Rod> rods;
    for (auto const& [edges, origin, copies] : cells)
        for (pipeline::Rod const& rod : pipeline::cellEdges({origin, edges, {}}, copies))
            rods.push_back(rod);
    return rods;
}

pipeline::Camera cameraOf(Placed const& placed, int width, int height, Vec const& origin) {
    auto const& [eye, right, up, forward, extent, isParallel] = placed;
    return {vecOf(eye) - origin, vecOf(right), vecOf(up), vecOf(forward), extent,
            isParallel,          width,        height};
}

Placed placedOf(pipeline::Camera const& camera, Vec const& origin) {
    return {tripleOf(camera.eye + origin), tripleOf(camera.right), tripleOf(camera.up),
            tripleOf(camera.forward),      camera.tanHalfHeight,   camera.isParallel};
}

py::dict arraysOf(pipeline::Image const& image, bool isTransparent) {
    py::dict arrays;
    Array<float> rgba({image.cropY1 - image.cropY0, image.cropX1 - image.cropX0, 4});
    float* pixel = rgba.mutable_data();
    for (std::size_t i = 0; i < image.alpha.size(); ++i) {
        pixel = std::copy_n(image.rgb.data() + 3 * i, 3, pixel);
        *pixel++ = isTransparent ? image.alpha[i] : 1.0F;
    }
    arrays["rgba"] = rgba;
    if (!image.depth.empty())
        arrays["depth"] = channel(image, image.depth, 0);
    if (!image.normal.empty())
        arrays["normal"] = channel(image, image.normal, 3);
    if (!image.id.empty())
        arrays["id"] = channel(image, image.id, 0);
    if (!image.position.empty())
        arrays["position"] = channel(image, image.position, 3);
    py::dict layers;
    for (pipeline::Layer const& layer : image.layers)
        layers[layer.name.c_str()] = channel(
            image, layer.values, layer.width > 1 ? static_cast<py::ssize_t>(layer.width) : 0);
    if (!image.layers.empty())
        arrays["layers"] = layers;
    arrays["part"] = py::make_tuple(image.cropX0, image.cropY0, image.cropX1, image.cropY1);
    if (auto const& facts = image.facts)
        arrays["facts"] =
            py::make_tuple(facts->worldToCamera, facts->worldToNdc, facts->fov, facts->seed);
    arrays["tile_label"] = py::bytes(image.tileLabel);
    return arrays;
}

void definePictures(py::module_& module) {
    defineCamera(module);
    defineWish(module);
    defineFiles(module);
}

} // namespace kelpapython
