// Counts and times as JSON.
#include "tool/report/statistics.h"

#include "tool/version.h"

#include <fmt/format.h>

namespace pipeline::tool {

namespace {

Json seconds(double value) {
    return {fmt::format("{:.6f}", value)};
}

Json jsonOf(Vec const& v) {
    return {fmt::format("[{}, {}, {}]", jsonNumber(v.x), jsonNumber(v.y), jsonNumber(v.z))};
}

Json jsonOf(PictureStatistics const& picture) {
    JsonObject json;
    json.add("file", picture.file)
        .add("width", picture.width)
        .add("height", picture.height)
        .add("cameraRays", picture.cameraRays)
        .add("renderSeconds", seconds(picture.renderSeconds))
        .add("writeSeconds", seconds(picture.writeSeconds));
    if (picture.blocksRead > 0)
        json.add("blocksRead", picture.blocksRead).add("bytesRead", picture.bytesRead);
    return json.onOneLine();
}

Json jsonOf(StoreFigures const& store) {
    return JsonObject()
        .add("number", store.blocks)
        .add("held", store.held)
        .add("heldBytes", store.heldBytes)
        .add("built", store.built)
        .add("found", store.found)
        .add("written", store.written)
        .add("writtenBytes", store.writtenBytes)
        .add("read", store.loaded)
        .add("readBytes", store.loadedBytes)
        .onOneLine();
}

} // namespace

Json jsonOf(Bounds const& bounds) {
    return JsonObject().add("min", jsonOf(bounds.min)).add("max", jsonOf(bounds.max)).onOneLine();
}

Json jsonOf(TreeStatistics const& tree) {
    JsonObject json;
    json.add("bytes", tree.treeBytes + tree.packedBytes);
    if (tree.leaves)
        json.add("boundingBox", jsonOf(tree.leaves->box));
    json.add("numberOfParticleSystems", tree.systems)
        .add("totalNumberOfSpheresStored", tree.used)
        .add("maxTreeDepth", tree.maxDepth);
    if (tree.leaves)
        json.add("averageTreeDepth", tree.leaves->averageDepth);
    json.add("numberOfTreeNodes", tree.nodes).add("numberOfLeafSpheres", tree.leafEntries);
    if (tree.leaves)
        json.add("numberOfTreeLeafs", tree.leaves->count)
            .add("averageSpheresLeaf", tree.leaves->averageEntries);
    if (tree.store)
        json.add("blocks", jsonOf(*tree.store));
    return json.onOneLine();
}

Json jsonOf(Rejected const& rejected) {
    return JsonObject()
        .add("notFinite", rejected.notFinite)
        .add("notPositive", rejected.notPositive)
        .onOneLine();
}

Json jsonOfMotion(Scene const& scene) {
    return JsonObject().add("mean", scene.meanStep).add("largest", scene.largestStep).onOneLine();
}

void RenderStatistics::addScene(std::string const& file, Scene const& scene, double readSeconds,
                                double buildSeconds) {
    TreeStatistics const tree = scene.geometry->statistics();
    JsonObject members;
    members.add("file", file)
        .add("spheres", tree.used)
        .add("skipped", jsonOf(scene.rejected))
        .add("motion", jsonOfMotion(scene));
    if (scene.colorRange) {
        auto const [low, high] = *scene.colorRange;
        members.add(
            "colors",
            JsonObject()
                .add("column", scene.colorColumn)
                .add("range", Json{fmt::format("[{}, {}]", jsonNumber(static_cast<double>(low)),
                                               jsonNumber(static_cast<double>(high)))})
                .onOneLine());
    }
    members.add("readSeconds", seconds(readSeconds))
        .add("buildSeconds", seconds(buildSeconds))
        .add("tree", jsonOf(tree));
    scenes.push_back({std::move(members), {}});
}

void RenderStatistics::addPicture(PictureStatistics const& picture) {
    scenes.back().pictures.push_back(picture);
}

std::string RenderStatistics::asJson(int threads, std::uint64_t peakMegabytes) const {
    std::vector<Json> sceneList;
    for (SceneEntry const& scene : scenes) {
        std::vector<Json> pictureList;
        for (PictureStatistics const& picture : scene.pictures)
            pictureList.push_back(jsonOf(picture));
        JsonObject whole = scene.members;
        sceneList.push_back(whole.add("pictures", jsonList(pictureList, 6)).onLines(4));
    }
    JsonObject json;
    json.add("version", version)
        .add("threads", threads)
        .add("peakMegabytes", peakMegabytes)
        .add("scenes", jsonList(sceneList, 2));
    if (!ranks.empty())
        json.add("ranks", jsonOf(ranks));
    return json.onLines(0).text + "\n";
}

} // namespace pipeline::tool
