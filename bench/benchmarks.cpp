// Builds and rays as cases of Google Benchmark.
#include "bench/benchmarks.h"

#include <benchmark/benchmark.h>

namespace kelpabench {

namespace {

/// A scene with all that is measured on it.
struct Stage {
    Stage(SceneRecipe const& recipe, int rays)
        : scene(makeScene(recipe)), sets(raySets(scene, rays)), ours(makeOurs(scene)) {
        ours->build(1);
    }

    Scene const scene;
    std::vector<RaySet> const sets;
    std::unique_ptr<Kernel> const ours;
};

/// The stage of a scene. Only the last one is kept; the benchmarks come scene by scene.
Stage& stageOf(SceneRecipe const& recipe, int rays) {
    static std::unique_ptr<Stage> stage;
    if (stage == nullptr || stage->scene.recipe != recipe) {
        stage.reset(); // before the next one takes memory
        stage = std::make_unique<Stage>(recipe, rays);
    }
    return *stage;
}

void measureBuild(benchmark::State& state, SceneRecipe const& recipe, int rays, int threads) {
    Kernel& ours = *stageOf(recipe, rays).ours;
    for ([[maybe_unused]] auto _ : state)
        state.SetIterationTime(ours.build(threads));
    Memory const memory = ours.memory();
    auto const spheres = static_cast<double>(recipe.count);
    state.counters["bytesPerSphere"] = static_cast<double>(memory.tree) / spheres;
    state.counters["copiedPerSphere"] = static_cast<double>(memory.copies) / spheres;
    state.SetItemsProcessed(state.iterations() * recipe.count);
}

void measureRays(benchmark::State& state, SceneRecipe const& recipe, int rays, int threads,
                 std::size_t set, Form form) {
    Stage const& stage = stageOf(recipe, rays);
    std::vector<Ray> const& wanted = stage.sets[set].rays;
    std::vector<Found> found(wanted.size());
    for ([[maybe_unused]] auto _ : state)
        traceOnThreads(threads, *stage.ours, form, 0, wanted, found);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(wanted.size()));
}

} // namespace

void registerBenchmarks(Settings const& settings) {
    constexpr char const* setNames[] = {"camera", "bounced", "random"};
    int const rays = settings.rays;
    for (SceneRecipe const& recipe : settings.recipes())
        for (int const threads : settings.threads) {
            std::string const onThreads = "/threads:" + std::to_string(threads);
            benchmark::RegisterBenchmark(
                ("build/" + recipe.name() + onThreads).c_str(),
                [=](benchmark::State& state) { measureBuild(state, recipe, rays, threads); })
                ->Unit(benchmark::kMillisecond)
                ->UseManualTime();
            for (std::size_t set = 0; set < std::size(setNames); ++set)
                for (Form const form : hitForms)
                    benchmark::RegisterBenchmark(
                        ("rays/" + recipe.name() + '/' + setNames[set] +
                         (form == Form::single ? "/single" : "/lists") + onThreads)
                            .c_str(),
                        [=](benchmark::State& state) {
                            measureRays(state, recipe, rays, threads, set, form);
                        })
                        ->Unit(benchmark::kMillisecond)
                        ->UseRealTime();
        }
}

} // namespace kelpabench
