#include "runtime/fault.h"
#include "runtime/trace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace qx {
namespace {

unsigned traceMask = 0;
char traceDir[512] = "/tmp/";
char traceFile[1100] = "/tmp/qxdlltrace.txt";
int traceCounter = 0;

// The trace state is process-global; host threads may call exports (and the set-up) at once.
// Recursive: setTrace writes its own log entries.
std::recursive_mutex& traceLock() {
    static std::recursive_mutex m;
    return m;
}

// One log entry: the file is opened and closed again for every entry, so that a crash loses
// nothing. The format takes the running number first.
template <typename Value>
int writeEntry(const char* format, const char* label, Value value) {
    std::lock_guard<std::recursive_mutex> lock(traceLock());
    if ((traceMask & 1u) == 0) return 0;
    FILE* f = std::fopen(traceFile, "a");
    if (!f) return 0;
    std::fprintf(f, format, traceCounter, label, value);
    ++traceCounter;
    std::fclose(f);
    return 1;
}

// Writes one image dump. samplesPerPixel is 3 (PPM) or 1 (PGM).
int dumpImage(const char* format, const char* magic, int samplesPerPixel, const void* pixels,
              int width, int height, int rowStep, int pixelStep, bool swap, bool eightBit,
              bool known) {
    std::lock_guard<std::recursive_mutex> lock(traceLock());
    if ((traceMask & 2u) == 0) return 0;
    char name[1100];
    std::snprintf(name, sizeof name, format, traceDir, traceCounter);
    ++traceCounter;
    FILE* f = std::fopen(name, "wb");
    if (!f) return 0;
    std::fputs(magic, f);
    std::fputs("# Created by QX for debugging\n", f);
    std::fprintf(f, "%d %d\n", width, height);
    std::fputs("255\n", f);
    const long rowBytes = static_cast<long>(samplesPerPixel) * (width > 0 ? width : 0);
    auto* row = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(rowBytes) + 1000));
    if (!row) {
        std::fclose(f);
        fail(Fault::TraceBuffer);
    }
    if (known && pixels) {
        for (int y = 0; y < height; ++y) {
            const auto* base = static_cast<const unsigned char*>(pixels) +
                               static_cast<long>(y) * rowStep;
            for (int x = 0; x < width; ++x) {
                for (int c = 0; c < samplesPerPixel; ++c) {
                    const int src = swap ? samplesPerPixel - 1 - c : c;
                    unsigned char v;
                    if (eightBit) {
                        v = base[static_cast<long>(x) * pixelStep + src];
                    } else {
                        const auto* p16 = reinterpret_cast<const uint16_t*>(base);
                        v = static_cast<unsigned char>(p16[static_cast<long>(x) * pixelStep + src] >> 7);
                    }
                    row[static_cast<long>(x) * samplesPerPixel + c] = v;
                }
            }
            std::fwrite(row, 1, static_cast<size_t>(rowBytes), f);
        }
    }
    std::free(row);
    std::fclose(f);
    return 1;
}

}  // namespace

int setTrace(unsigned mask, const char* dir) {
    std::lock_guard<std::recursive_mutex> lock(traceLock());
    traceMask = mask;
    if (dir) {
        std::strncpy(traceDir, dir, sizeof traceDir - 1);
        traceDir[sizeof traceDir - 1] = '\0';
    }
    std::snprintf(traceFile, sizeof traceFile, "%s/qxtrace_log.txt", traceDir);
    traceMsg("setTrace - traceFile: ", traceFile);
    return traceInt("setTrace - traceMask: ", static_cast<int>(mask));
}

unsigned isTrace() {
    std::lock_guard<std::recursive_mutex> lock(traceLock());
    return traceMask;
}

int traceMsg(const char* label, const char* text) {
    return writeEntry("<<<<%d: %s\n -- %s \n>>>>\n", label, text);
}

int traceInt(const char* label, int value) {
    return writeEntry("<<<<%d: %s %d \n>>>>\n", label, value);
}

int tracePtr(const char* label, unsigned long value) {
    return writeEntry("<<<<%d: %s %lx \n>>>>\n", label, value);
}

int tracePPM(const void* pixels, int width, int height, int rowStep, int pixelStep,
             int swapChannels, int depthKind) {
    const bool known = depthKind == 1 || depthKind == 2;
    return dumpImage("%s/img_%04d.ppm", "P6\n", 3, pixels, width, height, rowStep, pixelStep,
                     swapChannels != 0, depthKind == 1, known);
}

int tracePGM(const void* pixels, int width, int height, int rowStep, int pixelStep,
             int depthKind) {
    return dumpImage("%s/img_%04d.pgm", "P5\n", 1, pixels, width, height, rowStep, pixelStep,
                     false, depthKind == 1, true);
}

const char* traceFilePath() { return traceFile; }
int traceCounterValue() {
    std::lock_guard<std::recursive_mutex> lock(traceLock());
    return traceCounter;
}

}  // namespace qx
