// Cost of importing a community pack of 100 keys from one Ogg sprite (44.1 kHz
// stereo, 100 strokes of 200 ms, each with 10 ms of silence first): decoding
// and conversion to 48 kHz, cutting, trimming, levelling, laying out the key
// lists and writing 100 WAVs and pack.json through a staging folder.
#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Packs/Import/PackImporter.h"

#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

using namespace tobrin;

constexpr int rate = 44100;
constexpr std::size_t keys = 100;

// 1–83, F11, F12 and the extended keys: 101 scan codes, the first 100 used.
std::vector<std::uint32_t> scanCodes() {
    std::vector<std::uint32_t> codes;
    for (std::uint32_t code = 1; code <= 83; ++code) codes.push_back(code);
    for (std::uint32_t code : {87u, 88u, 3612u, 3613u, 3637u, 3640u, 3655u, 3657u, 3663u, 3665u, 3666u, 3667u, 3675u,
                               3676u, 57416u, 57419u, 57421u, 57424u})
        codes.push_back(code);
    codes.resize(keys);
    return codes;
}

class SpritePack {
public:
    SpritePack() {
        std::string pattern = (std::filesystem::temp_directory_path() / "tobrin-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        folder_ = pattern;
        const auto stroke = std::size_t(0.2 * rate);
        const auto silence = std::size_t(0.01 * rate);
        std::vector<float> interleaved(keys * stroke * 2, 0.0f);
        SplitMix64 random{7};
        std::string defines;
        const auto codes = scanCodes();
        for (std::size_t key = 0; key < keys; ++key) {
            for (std::size_t i = silence; i < stroke; ++i) {
                const double envelope = std::exp(-double(i - silence) / (0.02 * rate));
                interleaved[2 * (key * stroke + i)] = float(0.4 * envelope * random.signedUnit());
                interleaved[2 * (key * stroke + i) + 1] = float(0.4 * envelope * random.signedUnit());
            }
            defines +=
                (key ? "," : "") + ("\"" + std::to_string(codes[key]) + "\":[" + std::to_string(key * 200) + ",200]");
        }
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = 2;
        info.format = SF_FORMAT_OGG | SF_FORMAT_VORBIS;
        std::filesystem::create_directories(folder_ / "source");
        SNDFILE* file = sf_open((folder_ / "source" / "sound.ogg").c_str(), SFM_WRITE, &info);
        if (!file) std::abort();
        sf_writef_float(file, interleaved.data(), sf_count_t(keys * stroke));
        sf_close(file);
        std::ofstream(folder_ / "source" / "config.json")
            << R"({"name":"Bench","key_define_type":"single","includes_numpad":true,"sound":"sound.ogg","defines":{)"
            << defines << "}}";
    }
    ~SpritePack() { std::filesystem::remove_all(folder_); }
    std::filesystem::path source() const { return folder_ / "source"; }
    std::filesystem::path destination() const { return folder_ / "imported"; }

private:
    std::filesystem::path folder_;
};

void BM_ImportSingleFileOggPackOf100Keys(benchmark::State& state) {
    const SpritePack pack;
    for (auto _ : state) {
        const auto result = PackImporter::import(pack.source(), pack.destination(), PackImporter::Overwrite::anything);
        if (result.keys != keys || result.files != keys) state.SkipWithError("not 100 keys and files");
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(keys));
}

} // namespace

// Target: under 1 s on one core.
BENCHMARK(BM_ImportSingleFileOggPackOf100Keys)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

BENCHMARK_MAIN();
