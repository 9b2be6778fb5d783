// How long the pieces take that the program's own time is made of.

#include "fs/sha256.h"
#include "plan/descriptor.h"
#include "plan/plan.h"
#include "validate/identifiers.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <benchmark/benchmark.h>
#include <string>

namespace {

using namespace maintenance;

void compress(benchmark::State& run, Sha256Compression compression)
{
    if (compression == nullptr) {
        run.SkipWithError("not on this processor");
        return;
    }
    const std::string bytes(static_cast<std::size_t>(run.range(0)), 'x');
    Sha256State state{};
    for ([[maybe_unused]] auto _ : run) {
        compression(state, static_cast<const unsigned char*>(static_cast<const void*>(bytes.data())),
                    bytes.size() / 64);
        benchmark::DoNotOptimize(state);
    }
    run.SetBytesProcessed(run.iterations() * run.range(0));
}

BENCHMARK_CAPTURE(compress, portable, compressPortably)->Arg(64)->Arg(65536);
BENCHMARK_CAPTURE(compress, fastest, fastestCompression())->Arg(64)->Arg(65536);

const std::string path =
    "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP Heron.vst3/Contents/Resources/Presets/Old Pier.preset";
const std::string digest(64, 'a');

void ownedPath(benchmark::State& run)
{
    for ([[maybe_unused]] auto _ : run)
        benchmark::DoNotOptimize(safeRelative(path));
}
BENCHMARK(ownedPath);

void packageIdentifier(benchmark::State& run)
{
    const std::string id = "com.tamarindpelican.pkg.heron.vst3";
    for ([[maybe_unused]] auto _ : run)
        benchmark::DoNotOptimize(safePackageId(id));
}
BENCHMARK(packageIdentifier);

void fields(benchmark::State& run)
{
    const std::string line = "heron\tcom.tamarindpelican.pkg.heron.vst3\t1.0\t" + path + "\t" + digest;
    for ([[maybe_unused]] auto _ : run)
        benchmark::DoNotOptimize(splitExactly<5>(line, '\t'));
}
BENCHMARK(fields);

std::string numbered(std::size_t number)
{
    std::string text = std::to_string(number);
    return std::string(6 - text.size(), '0') + text;
}

std::string descriptorOf(std::size_t files)
{
    Descriptor descriptor{"bench", "7", "none", "system", "none", "bench", {{"a", "-", "1.0"}}, {}, {}};
    for (std::size_t i = 0; i < files; ++i)
        descriptor.files.push_back({"a", productPackageId("a", "vst3"), "1.0", digest,
                                    std::string(vst3Destination) + "TP A.vst3/Contents/" + numbered(i)});
    for (const std::string_view shared : {maintenanceExecutable, updaterExecutable})
        descriptor.files.push_back(
            {"common", std::string(commonPackageId), "7", digest, std::string(shared)});
    return descriptorText(descriptor);
}

void descriptorText(benchmark::State& run)
{
    const std::string text = descriptorOf(static_cast<std::size_t>(run.range(0)));
    for ([[maybe_unused]] auto _ : run)
        benchmark::DoNotOptimize(parseDescriptorText(text, "system", "bench"));
    run.SetBytesProcessed(run.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(descriptorText)->Arg(24)->Arg(5700)->Unit(benchmark::kMicrosecond);

void planText(benchmark::State& run)
{
    std::string text =
        "schema=tamarind.pelican.macos-maintenance-plan.v1\nsku=bench\npackageRevision=7\nproduct=a\t1.0\n"
        "component=0\ta\tcom.tamarindpelican.pkg.a.vst3\t1.0\n";
    for (std::size_t i = 0; i < static_cast<std::size_t>(run.range(0)); ++i)
        text += "target=0\t" + std::string(vst3Destination) + "TP A.vst3/Contents/" + numbered(i) + "\t" +
                digest + "\n";
    text += "component=1\ta\tcom.tamarindpelican.pkg.a.au\t1.0\ntarget=1\t" +
            std::string(componentsDestination) + "TP A.component/Info\t" + digest +
            "\ncomponent=2\tcommon\t" + std::string(commonPackageId) + "\t7\n";
    for (const std::string_view shared : {maintenanceExecutable, updaterExecutable})
        text += "target=2\t" + std::string(shared) + "\t" + digest + "\n";
    for ([[maybe_unused]] auto _ : run)
        benchmark::DoNotOptimize(parsePlanText(text));
    run.SetBytesProcessed(run.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(planText)->Arg(24)->Arg(6800)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
