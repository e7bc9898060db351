// qxmatte batch IN -o OUT [-j N] [--only NAME]: every photo (or the one named) of a folder with a
// partner file to an RGBA cut-out, as the single commands make it. Photos run N at once on threads of this process (the library
// runs jobs on several threads side by side); a photo whose output is newer than its inputs is
// left alone; a failing photo is listed at the end and doesn't stop the others.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "../cli.h"

namespace qxmatte {
namespace {

namespace fs = std::filesystem;

enum class State { Pending, Written, Failed, Interrupted };

struct Item {
    std::string name;  // the photo's name without its extension: the output is OUT/name.png
    fs::path image, partner, output;
    Partner kind = Partner::Mask;
    State state = State::Pending;
    std::string failure;
};

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

// The photo formats the single commands read.
const char* const kPhotoExtensions[] = {".png", ".jpg", ".jpeg", ".tif", ".tiff", ".webp"};
const std::pair<const char*, Partner> kPartners[] = {{".mask.png", Partner::Mask},
                                                     {".trimap.png", Partner::Trimap},
                                                     {".strokes.png", Partner::Strokes}};

bool isPhoto(const fs::path& p) {
    const std::string ext = lower(p.extension().string());
    if (std::none_of(std::begin(kPhotoExtensions), std::end(kPhotoExtensions),
                     [&](const char* e) { return ext == e; }))
        return false;
    const std::string stem = lower(p.stem().string());
    for (const auto& partner : kPartners) {
        const std::string s(partner.first, std::strlen(partner.first) - 4);  // less ".png"
        if (stem.size() > s.size() && stem.compare(stem.size() - s.size(), s.size(), s) == 0)
            return false;
    }
    return true;
}

// The newest of the inputs is older than the output: nothing to do.
bool upToDate(const Item& it) {
    std::error_code ec;
    if (!fs::exists(it.output, ec)) return false;
    const auto out = fs::last_write_time(it.output, ec);
    if (ec) return false;
    return out >= fs::last_write_time(it.image, ec) &&
           (it.partner.empty() || out >= fs::last_write_time(it.partner, ec));
}

// The output folder under the single commands' rules: it exists, is writable, and is not the
// input folder (whose photos NAME.png the cut-outs NAME.png would replace). Empty when usable.
std::string checkOutputFolder(const std::string& in, const std::string& out) {
    std::error_code ec;
    if (!fs::exists(out, ec)) return out + ": no such folder (make it first)";
    if (!fs::is_directory(out, ec)) return out + ": not a folder";
    if (access(out.c_str(), W_OK | X_OK) != 0) return out + ": the folder is not writable";
    if (sameFile(in, out))
        return out + ": is the input folder; the cut-outs NAME.png would replace the photos, "
                     "name another folder";
    return {};
}

}  // namespace

int runBatch(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::string outDir, only;
    int jobs = 1;
    bool subject = false;  // photos without a partner: the one-click cut-out
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) {
            outDir = argv[++i];
        } else if (a == "--only" && more) {
            only = argv[++i];
        } else if (a == "--subject") {
            subject = true;
        } else if (a == "-j" && more) {
            if (!parseInt(argv[++i], 1, 64, &jobs)) return fail(kExitUsage, "-j takes 1 to 64");
        } else if (const int rc = otherArgument(a, &showProgress, &positional)) {
            return rc;
        }
    }
    if (positional.size() != 1 || outDir.empty())
        return usageError("batch", "needs IN and -o OUT");
    const fs::path in(positional[0]), out(outDir);
    std::error_code ec;
    if (!fs::is_directory(in, ec)) return fail(kExitInput, positional[0] + ": not a folder");
    const std::string folderError = checkOutputFolder(positional[0], outDir);
    if (!folderError.empty()) return fail(kExitOutput, folderError);

    // The photos with a partner, in name order; the others are named as skipped.
    std::vector<fs::path> photos;
    for (const auto& e : fs::directory_iterator(in, ec))
        if (e.is_regular_file(ec) && isPhoto(e.path())) photos.push_back(e.path());
    std::sort(photos.begin(), photos.end());
    std::vector<Item> items;
    std::map<std::string, fs::path> names;
    std::vector<std::string> skipped;
    bool onlyFound = false;
    for (const fs::path& p : photos) {
        Item it;
        it.name = p.stem().string();
        it.image = p;
        if (!only.empty() && it.name != only) continue;
        onlyFound = true;
        for (const auto& [suffix, kind] : kPartners) {
            const fs::path candidate = in / (it.name + suffix);
            if (fs::exists(candidate, ec)) {
                it.partner = candidate;
                it.kind = kind;
                break;
            }
        }
        if (it.partner.empty() && subject) it.kind = Partner::Subject;
        if (it.partner.empty() && !subject) {
            skipped.push_back(p.filename().string() + ": skipped, no partner " + it.name +
                              ".mask.png, " + it.name + ".trimap.png or " + it.name +
                              ".strokes.png");
            continue;
        }
        it.output = out / (it.name + ".png");
        if (!names.emplace(it.name, p).second) {
            it.state = State::Failed;
            it.failure = "another photo (" + names[it.name].filename().string() +
                         ") has the same name and output";
        }
        items.push_back(std::move(it));
    }
    if (!only.empty() && !onlyFound)
        return fail(kExitInput, "--only " + only + ": no photo " + only +
                                    ".png, .jpg, .jpeg, .tif, .tiff or .webp in " + positional[0]);
    if (!only.empty() && items.empty()) return fail(kExitInput, skipped.front());
    std::vector<Item*> todo;
    int current = 0;
    for (Item& it : items) {
        if (it.state == State::Failed) continue;
        if (upToDate(it)) ++current;
        else todo.push_back(&it);
    }

    // Workers take the next photo until none is left or a signal came.
    std::atomic<size_t> next{0};
    std::atomic<int> finished{0};
    std::mutex barLock;
    const auto bar = [&] {
        if (!showProgress) return;
        std::lock_guard<std::mutex> lock(barLock);
        const int done = finished.load(), total = int(todo.size());
        const int filled = total ? done * 30 / total : 30;
        std::fprintf(stderr, "\r[%.*s%.*s] %d/%d photos", filled, "##############################",
                     30 - filled, "                              ", done, total);
        std::fflush(stderr);
    };
    const auto work = [&] {
        for (size_t k; interruptedBy() == 0 && (k = next++) < todo.size();) {
            Item& it = *todo[k];
            captureFailures(&it.failure);
            Job job(false);
            cv::Mat rgba;
            int rc = cutoutOf(it.kind, it.image.string(), it.partner.string(), job, &rgba, nullptr);
            if (rc == kExitOk) rc = writeAll({{it.output.string(), rgba}});
            captureFailures(nullptr);
            if (rc == kExitOk) {
                it.state = State::Written;
                it.failure.clear();
            } else if (interruptedBy() != 0) {
                it.state = State::Interrupted;
            } else {
                it.state = State::Failed;
                if (it.failure.empty())
                    it.failure = "failed with exit status " + std::to_string(rc);
            }
            ++finished;
            bar();
        }
    };
    bar();
    std::vector<std::thread> threads;
    for (int t = 1; t < std::min<int>(jobs, int(todo.size())); ++t) threads.emplace_back(work);
    work();
    for (std::thread& t : threads) t.join();
    if (showProgress) clearBarLine();

    int failed = 0, done = 0;
    for (const Item& it : items) {
        failed += it.state == State::Failed;
        done += it.state == State::Written;
    }
    if (interruptedBy() != 0) {
        const int left = int(todo.size()) - done;
        std::fprintf(stderr, "qxmatte: interrupted; %s, %d photo%s not done\n",
                     done == 0 ? "no photo written"
                               : (std::to_string(done) + " written").c_str(),
                     left, left == 1 ? "" : "s");
        return 128 + interruptedBy();
    }
    std::printf("batch: %d written, %d up to date, %d failed, %d without a partner\n", done,
                current, failed, int(skipped.size()));
    for (const Item& it : items)
        if (it.state == State::Failed)
            std::printf("  %s: %s\n", it.image.filename().string().c_str(), it.failure.c_str());
    for (const std::string& line : skipped) std::printf("  %s\n", line.c_str());
    return failed ? kExitInput : kExitOk;
}

}  // namespace qxmatte
