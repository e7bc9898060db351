// qxmatte batch IN -o OUT [-j N] [--only NAME]: every photo (or the one named)  of a folder with a partner file to an RGBA cut-out,
// as the single commands make it. Photos run N at once on threads of this process (the library
// runs jobs on several threads side by side); a photo whose output is newer than its inputs is
// left alone; a failing photo is listed at the end and doesn't stop the others.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "cli.h"

namespace qxmatte {
namespace {

namespace fs = std::filesystem;

struct Item {
    std::string name;  // the photo's name without its extension: the output is OUT/name.png
    fs::path image, partner, output;
    Partner kind = Partner::Mask;
    std::string failure;  // empty: done
};

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

bool isPhoto(const fs::path& p) {
    const std::string ext = lower(p.extension().string());
    if (ext != ".png" && ext != ".jpg" && ext != ".jpeg" && ext != ".tif" && ext != ".tiff")
        return false;
    const std::string stem = lower(p.stem().string());
    for (const char* suffix : {".mask", ".trimap", ".strokes"}) {
        const std::string s(suffix);
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
    return out >= fs::last_write_time(it.image, ec) && out >= fs::last_write_time(it.partner, ec);
}

}  // namespace

int runBatch(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::string outDir, only;
    int jobs = 1;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) {
            outDir = argv[++i];
        } else if (a == "--only" && more) {
            only = argv[++i];
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
    fs::create_directories(out, ec);
    if (!fs::is_directory(out, ec)) return fail(kExitOutput, outDir + ": cannot make the folder");

    // The photos with a partner, in name order.
    std::vector<fs::path> photos;
    for (const auto& e : fs::directory_iterator(in, ec))
        if (e.is_regular_file(ec) && isPhoto(e.path())) photos.push_back(e.path());
    std::sort(photos.begin(), photos.end());
    std::vector<Item> items;
    std::map<std::string, fs::path> names;
    int alone = 0;
    for (const fs::path& p : photos) {
        Item it;
        it.name = p.stem().string();
        it.image = p;
        if (!only.empty() && it.name != only) continue;
        const std::pair<const char*, Partner> partners[] = {
            {".mask.png", Partner::Mask}, {".trimap.png", Partner::Trimap},
            {".strokes.png", Partner::Strokes}};
        for (const auto& [suffix, kind] : partners) {
            const fs::path candidate = in / (it.name + suffix);
            if (fs::exists(candidate, ec)) {
                it.partner = candidate;
                it.kind = kind;
                break;
            }
        }
        if (it.partner.empty()) {
            ++alone;
            continue;
        }
        it.output = out / (it.name + ".png");
        if (!names.emplace(it.name, p).second)
            it.failure = "another photo (" + names[it.name].filename().string() +
                         ") has the same name and output";
        items.push_back(std::move(it));
    }
    std::vector<Item*> todo;
    int current = 0;
    for (Item& it : items) {
        if (!it.failure.empty()) continue;
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
            if (rc == kExitOk) it.failure.clear();
            else if (it.failure.empty()) it.failure = "failed with exit status " + std::to_string(rc);
            captureFailures(nullptr);
            ++finished;
            bar();
        }
    };
    bar();
    std::vector<std::thread> threads;
    for (int t = 1; t < std::min<int>(jobs, int(todo.size())); ++t) threads.emplace_back(work);
    work();
    for (std::thread& t : threads) t.join();
    if (showProgress) std::fprintf(stderr, "\r%*s\r", 50, "");
    if (interruptedBy() != 0) {
        std::fprintf(stderr, "qxmatte: interrupted; the photos done so far are written\n");
        return 128 + interruptedBy();
    }

    int failed = 0, done = 0;
    for (const Item* it : todo) (it->failure.empty() ? done : failed) += 1;
    for (const Item& it : items)
        if (!it.failure.empty() && std::find(todo.begin(), todo.end(), &it) == todo.end()) ++failed;
    std::printf("batch: %d written, %d up to date, %d failed, %d without a partner\n", done,
                current, failed, alone);
    for (const Item& it : items)
        if (!it.failure.empty())
            std::printf("  %s: %s\n", it.image.filename().string().c_str(), it.failure.c_str());
    return failed ? kExitInput : kExitOk;
}

}  // namespace qxmatte
