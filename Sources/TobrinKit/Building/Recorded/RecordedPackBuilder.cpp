// Fetching (libcurl, ffmpeg), slicing, writing and levelling a recorded pack.
#include "TobrinKit/Building/Recorded/RecordedPackBuilder.h"

#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Building/WAVWriter.h"
#include "TobrinKit/Engine/Core/OutputFile.h"
#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/OfflineRenderer.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackError.h"
#include "TobrinKit/Packs/PackInfo.h"
#include "TobrinKit/Packs/PackManifest.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <set>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tobrin {

namespace {

namespace fs = std::filesystem;
using Log = RecordedPackBuilder::Log;
using Take = RecordingSlicer::Take;
using Clock = std::chrono::steady_clock;

// A download larger than this is not a preview.
constexpr std::size_t maxDownloadBytes = 256u << 20;
// How often a long download or conversion says it is still going.
constexpr auto aliveEvery = std::chrono::seconds(3);

void say(const Log& log, const std::string& line) {
    if (!log) return;
    try {
        log(line);
    } catch (...) {
        // The log only listens; it never stops a build.
    }
}

std::string megabytes(double bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
    return text;
}

struct Download {
    std::vector<std::uint8_t> bytes;
    bool tooLarge = false;
    const Log* log = nullptr;
    Clock::time_point lastWord = Clock::now();
};

std::size_t receive(char* data, std::size_t size, std::size_t count, void* context) {
    auto& download = *static_cast<Download*>(context);
    const std::size_t bytes = size * count;
    if (download.bytes.size() + bytes > maxDownloadBytes) {
        download.tooLarge = true;
        return 0; // makes curl stop with a write error
    }
    download.bytes.insert(download.bytes.end(), data, data + bytes);
    return bytes;
}

int progress(void* context, curl_off_t total, curl_off_t now, curl_off_t, curl_off_t) {
    auto& download = *static_cast<Download*>(context);
    if (Clock::now() - download.lastWord >= aliveEvery) {
        download.lastWord = Clock::now();
        say(*download.log, "    downloaded " + megabytes(double(now)) +
                               (total > 0 ? " of " + megabytes(double(total)) : std::string()));
    }
    return 0;
}

// The whole resource at `url` (http, https or file), in memory.
std::vector<std::uint8_t> download(const std::string& url, const Log& log) {
    static std::once_flag initialised;
    std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    const std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) throw RecordedPackBuilder::Error("cannot download " + url + ": libcurl did not start");
    Download state;
    state.log = &log;
    char message[CURL_ERROR_SIZE] = {};
    CURL* handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https,file");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(handle, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, 30L);
    // A stalled transfer ends instead of hanging the build.
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, 60L);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "tobrin-pack");
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, message);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, receive);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &state);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &state);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    const CURLcode result = curl_easy_perform(handle);
    if (state.tooLarge) {
        throw RecordedPackBuilder::Error("cannot download " + url + ": larger than " +
                                         megabytes(double(maxDownloadBytes)));
    }
    if (result != CURLE_OK) {
        throw RecordedPackBuilder::Error("cannot download " + url + ": " +
                                         (message[0] ? std::string(message) : curl_easy_strerror(result)));
    }
    return std::move(state.bytes);
}

// Runs ffmpeg through /usr/bin/env (so PATH finds it) with the arguments
// below and nothing else, no shell. Its error output is collected and logged
// when it fails; meanwhile a line every few seconds says it is still at work.
void convert(const fs::path& preview, const fs::path& output, const std::string& url, const Log& log) {
    const std::vector<std::string> words{"/usr/bin/env", "ffmpeg",    "-nostdin",       "-loglevel", "error",
                                         "-y",           "-i",        preview.string(), "-ar",       "48000",
                                         "-c:a",         "pcm_f32le", output.string()};
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);

    int errors[2] = {-1, -1};
    if (::pipe2(errors, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, errors[1], 2);
    pid_t child = -1;
    const int spawned = posix_spawn(&child, words[0].c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(errors[1]);
    if (spawned != 0) {
        ::close(errors[0]);
        throw std::system_error(spawned, std::generic_category(), "cannot start " + words[0]);
    }

    std::string errorText;
    auto lastWord = Clock::now();
    for (;;) {
        pollfd watch{errors[0], POLLIN, 0};
        const int ready = ::poll(&watch, 1, 1000);
        if (ready > 0) {
            char chunk[4096];
            const ssize_t got = ::read(errors[0], chunk, sizeof chunk);
            if (got == 0) break;
            if (got > 0 && errorText.size() < 65536) errorText.append(chunk, std::size_t(got));
            if (got < 0 && errno != EINTR) break;
        } else if (ready < 0 && errno != EINTR) {
            break;
        }
        if (Clock::now() - lastWord >= aliveEvery) {
            lastWord = Clock::now();
            say(log, "    still converting " + preview.filename().string());
        }
    }
    ::close(errors[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
    std::size_t start = 0;
    for (int lines = 0; start < errorText.size() && lines < 20; ++lines) {
        const std::size_t end = std::min(errorText.find('\n', start), errorText.size());
        if (end > start) say(log, "    ffmpeg: " + errorText.substr(start, end - start));
        start = end + 1;
    }
    throw PackError::decode(url, "ffmpeg failed (is ffmpeg installed?)");
}

// Takes of one list from several recordings, in turn, up to `count`.
std::vector<Take> inTurn(const std::vector<const std::vector<Take>*>& lists, std::size_t count) {
    std::vector<Take> result;
    for (std::size_t round = 0; result.size() < count; ++round) {
        bool any = false;
        for (const auto* list : lists) {
            if (round < list->size() && result.size() < count) {
                result.push_back((*list)[round]);
                any = true;
            }
        }
        if (!any) break;
    }
    return result;
}

using TierLists = std::map<Tier, std::vector<Take>>;

// The tier lists of `groups` of every sliced recording, merged in turn.
TierLists merge(const std::vector<RecordingSlicer::Result>& recordings, std::initializer_list<KeyGroup> groups,
                int variants) {
    TierLists merged;
    for (const Tier tier : allTiers) {
        std::vector<const std::vector<Take>*> lists;
        for (const auto& recording : recordings) {
            for (const KeyGroup group : groups) {
                const auto found = recording.down.find(group);
                if (found == recording.down.end()) continue;
                if (const auto takes = found->second.find(tier); takes != found->second.end()) {
                    lists.push_back(&takes->second);
                }
            }
        }
        auto takes = inTurn(lists, std::size_t(std::max(variants, 0)));
        if (!takes.empty()) merged[tier] = std::move(takes);
    }
    return merged;
}

std::vector<Take> mergeReleases(const std::vector<RecordingSlicer::Result>& recordings, int variants) {
    std::vector<const std::vector<Take>*> lists;
    for (const auto& recording : recordings) lists.push_back(&recording.up);
    return inTurn(lists, std::size_t(std::max(variants, 0)));
}

// One file of the pack.
struct File {
    std::string name;
    const Take* take = nullptr;
};

struct Layout {
    std::vector<File> files;
    PackManifest manifest;
    float pressPeak = 0; // the median press take's peak
};

// The pack's files and manifest. Letters (alpha) get the "key" takes; the
// space bar and Backspace, both long keys, the "wide" ones; Enter its own
// recordings' takes ("enter") or else the wide ones. Modifiers are left to
// the loader, which serves a missing group from alpha. Every group with
// takes has the release list; Enter the releases of its own recordings when
// they gave any.
Layout layOut(const PackRecipe& recipe, const TierLists& keys, const TierLists& wide, const TierLists& enter,
              const std::vector<Take>& up, const std::vector<Take>& enterUp) {
    Layout layout;
    PackManifest& manifest = layout.manifest;
    manifest.formatVersion = 1;
    manifest.id = recipe.id;
    manifest.name = recipe.name;
    manifest.kind = recipe.kind;
    manifest.summary = recipe.summary;
    std::set<std::string> users;
    for (const auto& source : recipe.sources) users.insert(source.user);
    if (recipe.enterSources) {
        for (const auto& source : *recipe.enterSources) users.insert(source.user);
    }
    std::string author;
    for (const std::string& user : users) author += (author.empty() ? "" : ", ") + user;
    manifest.author = author;

    std::vector<float> peaks;
    const auto add = [&](const std::string& name, const Take& take, bool press) {
        layout.files.push_back({name, &take});
        if (press) peaks.push_back(RecordedPackBuilder::peak(take.left, take.right));
        return name;
    };
    std::map<std::string, std::vector<std::string>> keyDown, wideDown, enterDown;
    for (const auto& [tier, takes] : keys) {
        for (std::size_t i = 0; i < takes.size(); ++i) {
            keyDown[std::string(name(tier))].push_back(
                add("key-" + std::string(name(tier)) + "-" + std::to_string(i + 1) + ".wav", takes[i], true));
        }
    }
    for (const auto& [tier, takes] : wide) {
        for (std::size_t i = 0; i < takes.size(); ++i) {
            wideDown[std::string(name(tier))].push_back(
                add("wide-" + std::string(name(tier)) + "-" + std::to_string(i + 1) + ".wav", takes[i], true));
        }
    }
    int enterNumber = 0;
    for (const auto& [tier, takes] : enter) {
        for (const Take& take : takes) {
            enterDown[std::string(name(tier))].push_back(
                add("enter-" + std::to_string(++enterNumber) + ".wav", take, true));
        }
    }
    int upNumber = 0;
    std::vector<std::string> upFiles, enterUpFiles;
    for (const Take& take : up) upFiles.push_back(add("up-" + std::to_string(++upNumber) + ".wav", take, false));
    for (const Take& take : enterUp)
        enterUpFiles.push_back(add("up-" + std::to_string(++upNumber) + ".wav", take, false));

    const auto group = [&](const std::map<std::string, std::vector<std::string>>& down,
                           const std::vector<std::string>& releases) {
        PackManifest::Group result;
        result.down = down;
        if (!releases.empty()) result.up = releases;
        return result;
    };
    if (!keyDown.empty()) manifest.groups[std::string(rawValue(KeyGroup::alpha))] = group(keyDown, upFiles);
    if (!wideDown.empty()) {
        manifest.groups[std::string(rawValue(KeyGroup::space))] = group(wideDown, upFiles);
        manifest.groups[std::string(rawValue(KeyGroup::backspace))] = group(wideDown, upFiles);
    }
    if (!enterDown.empty()) {
        manifest.groups[std::string(rawValue(KeyGroup::enter))] =
            group(enterDown, enterUpFiles.empty() ? upFiles : enterUpFiles);
    } else if (!wideDown.empty()) {
        manifest.groups[std::string(rawValue(KeyGroup::enter))] = group(wideDown, upFiles);
    }
    manifest.license = recipe.licenseText();
    layout.pressPeak = RecordingSlicer::percentile(peaks, 0.5);
    return layout;
}

// Writes every take with the one gain of the pack times `correction`, each
// take limited so that its peak stays at 0.95 (no take clips, whatever the
// correction asks), and the manifest.
void writePack(const Layout& layout, const fs::path& folder, double correction) {
    const double gain = double(RecordedPackBuilder::referencePeak) / std::max(double(layout.pressPeak), 1e-6);
    for (const File& file : layout.files) {
        const float peak = RecordedPackBuilder::peak(file.take->left, file.take->right);
        const auto scale = float(std::min(gain * correction, 0.95 / std::max(double(peak), 1e-6)));
        std::vector<float> left = file.take->left, right = file.take->right;
        for (float& sample : left) sample *= scale;
        for (float& sample : right) sample *= scale;
        WAVWriter::write(left, std::span<const float>(right), std::int64_t(RecordedPackBuilder::rate),
                         folder / file.name);
    }
    layout.manifest.write(folder / PackManifest::fileName);
}

// A previous build of this recipe: a folder (not a link) whose pack.json has
// the recipe's id, holding nothing but regular files it lists. Anything else
// at the target is the user's and stays.
bool isBuildOf(const fs::path& folder, const std::string& id) {
    std::error_code error;
    if (fs::symlink_status(folder, error).type() != fs::file_type::directory) return false;
    if (fs::is_empty(folder, error) && !error) return true;
    PackManifest manifest;
    try {
        manifest = PackManifest::read(folder);
    } catch (const std::exception&) {
        return false;
    }
    if (manifest.id != id) return false;
    std::set<std::string> listed{std::string(PackManifest::fileName)};
    for (const auto& [groupName, group] : manifest.groups) {
        for (const auto& [tier, paths] : group.down) listed.insert(paths.begin(), paths.end());
        if (group.up) listed.insert(group.up->begin(), group.up->end());
    }
    for (fs::directory_iterator entry(folder, error), end; entry != end; entry.increment(error)) {
        if (error || !listed.contains(entry->path().filename().string()) ||
            entry->symlink_status(error).type() != fs::file_type::regular) {
            return false;
        }
    }
    return !error;
}

std::string recordingName(const PackRecipe::Source& source) {
    return std::to_string(source.freesoundID) + " \"" + source.title + "\" by " + source.user;
}

std::vector<RecordingSlicer::Result> sliceAll(const std::vector<PackRecipe::Source>& sources, const fs::path& cache,
                                              const RecordingSlicer::Options& options, const Log& log) {
    std::vector<RecordingSlicer::Result> results;
    std::set<std::int64_t> seen;
    for (const auto& source : sources) {
        if (!seen.insert(source.freesoundID).second) continue; // the same recording twice
        say(log, "  " + recordingName(source));
        const SampleBuffer recording = RecordedPackBuilder::load(source, cache, log);
        const std::span<const float> left(recording.left(), recording.frames());
        const std::span<const float> right(recording.right(), recording.frames());
        results.push_back(RecordingSlicer::slice(left, right, RecordedPackBuilder::rate, options));
        say(log, "    " + results.back().report);
    }
    return results;
}

std::size_t countTakes(const TierLists& lists) {
    std::size_t count = 0;
    for (const auto& [tier, takes] : lists) count += takes.size();
    return count;
}

} // namespace

float RecordedPackBuilder::peak(const std::vector<float>& left, const std::vector<float>& right) {
    float result = 0;
    for (float sample : left) result = std::max(result, std::abs(sample));
    for (float sample : right) result = std::max(result, std::abs(sample));
    return result;
}

fs::path RecordedPackBuilder::fetch(const PackRecipe::Source& source, const fs::path& cache, const Log& log) {
    const std::string number = std::to_string(source.freesoundID);
    const fs::path converted = cache / (number + ".wav");
    std::error_code error;
    if (fs::exists(converted, error)) return converted;
    fs::create_directories(cache);
    const fs::path preview = cache / (number + ".ogg");
    if (!fs::exists(preview, error)) {
        say(log, "    downloading " + source.previewURL);
        const std::vector<std::uint8_t> bytes = download(source.previewURL, log);
        // Written aside and renamed: an interrupted run leaves no half preview.
        OutputFile::write(preview, bytes);
    }
    say(log, "    converting " + preview.filename().string());
    // Converted under a temporary name and renamed when ffmpeg succeeded,
    // so a killed conversion never leaves a half file that the next run
    // would take for a finished one.
    const fs::path partial = cache / ("." + number + ".converting-" + OutputFile::randomName(8) + ".wav");
    try {
        convert(preview, partial, source.previewURL, log);
        fs::rename(partial, converted);
    } catch (...) {
        fs::remove(partial, error);
        throw;
    }
    return converted;
}

SampleBuffer RecordedPackBuilder::load(const PackRecipe::Source& source, const fs::path& cache, const Log& log) {
    const fs::path file = fetch(source, cache, log);
    const auto limit = std::size_t(maxRecordingSeconds * rate);
    SampleBuffer whole = [&] {
        try {
            return SampleBuffer::load(file, rate, limit);
        } catch (const SampleBuffer::TooLong&) {
            throw Error("recording " + std::to_string(source.freesoundID) + " is longer than 20 minutes");
        }
    }();
    if (!source.start && !source.end) return whole;
    const auto frameAt = [&](double seconds) { return std::min(whole.frames(), std::size_t(seconds * rate)); };
    const std::size_t begin = frameAt(source.start.value_or(0));
    const std::size_t end = std::max(begin, source.end ? frameAt(*source.end) : whole.frames());
    const std::span<const float> left(whole.left() + begin, end - begin);
    if (whole.isMono()) return SampleBuffer(left, std::nullopt, rate);
    return SampleBuffer(left, std::span<const float>(whole.right() + begin, end - begin), rate);
}

double RecordedPackBuilder::demoLoudness(const fs::path& folder) {
    const auto pack = LoadedPack::load(PackInfo::read(folder, false), rate);
    // A steady, medium typist at 85 words a minute; the engine's default
    // settings at full volume, releases and tier blending on.
    const auto script =
        OfflineRenderer::typingScript("tobrin plays real keyboards as you type, every key with its own take.\n", 85.0,
                                      3, [](int, int) { return 1.0f; });
    EngineSettings settings;
    settings.volume = 1.0f;
    const auto demo = OfflineRenderer::render(*pack, script, settings, 0.8, rate);
    return Loudness::integrated(demo.left, std::span<const float>(demo.right), rate);
}

void RecordedPackBuilder::build(const PackRecipe& recipe, const fs::path& cache, const fs::path& into, const Log& log,
                                const Settings& settings) {
    const RecordingSlicer::Options options = recipe.options.value_or(RecordingSlicer::Options{});
    say(log, "building " + recipe.name + " (" + recipe.id + ")");
    const auto recordings = sliceAll(recipe.sources, cache, options, log);
    std::vector<RecordingSlicer::Result> enterRecordings;
    if (recipe.enterSources) {
        say(log, "  for the Enter key:");
        enterRecordings = sliceAll(*recipe.enterSources, cache, options, log);
    }

    const TierLists keys = merge(recordings, {KeyGroup::alpha}, options.alphaVariants);
    const TierLists wide = merge(recordings, {KeyGroup::space}, options.bigVariants);
    const TierLists enter = merge(enterRecordings, {KeyGroup::alpha, KeyGroup::space}, options.bigVariants);
    const std::vector<Take> up = mergeReleases(recordings, options.releaseVariants);
    const std::vector<Take> enterUp = mergeReleases(enterRecordings, options.releaseVariants);
    if (keys.empty() && wide.empty() && enter.empty()) {
        throw Error("the recordings of " + recipe.id + " gave no usable key press");
    }
    Layout layout = layOut(recipe, keys, wide, enter, up, enterUp);
    layout.manifest.license = recipe.licenseText(settings.site);

    StagedPackFolder staged(into, [&](const fs::path& existing) { return isBuildOf(existing, recipe.id); });
    say(log, "  writing " + std::to_string(layout.files.size()) + " takes (" + std::to_string(countTakes(keys)) +
                 " key, " + std::to_string(countTakes(wide)) + " wide, " + std::to_string(countTakes(enter)) +
                 " enter, " + std::to_string(up.size() + enterUp.size()) + " up)");
    writePack(layout, staged.folder(), 1.0);
    double loudness = demoLoudness(staged.folder());
    if (std::isfinite(loudness) && std::abs(loudness - targetLoudness) > 0.2) {
        const double correction = std::pow(10.0, (targetLoudness - loudness) / 20.0);
        char line[96];
        std::snprintf(line, sizeof line, "  demo at %.1f LUFS: writing again %+.1f dB", loudness,
                      targetLoudness - loudness);
        say(log, line);
        writePack(layout, staged.folder(), correction);
        loudness = demoLoudness(staged.folder());
    }
    staged.commit();
    fs::path name = into;
    while (!name.has_filename() && name.has_relative_path()) name = name.parent_path();
    char line[512];
    std::snprintf(line, sizeof line, "    wrote %zu takes to %s/  (%.1f LUFS)", layout.files.size(),
                  name.filename().c_str(), loudness);
    say(log, line);
}

} // namespace tobrin
