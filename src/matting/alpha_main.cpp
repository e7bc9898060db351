// From the Laplacian's triples to alpha: merge the triples into one sparse symmetric system
// (upper triangle, compressed rows, one-based) over the pixels that need solving, solve
// (L + C) x = C a, and scale the solution to 0..255. The triples stand window by window; each row
// gathers its own from the (at most nine) windows that hold its pixel, in the order a stable sort
// by row would leave them, so no sort of the whole Laplacian is needed.
//
// Peak memory matters more than anything here: every array is released at the first point it
// is no longer needed, and the Laplacian's arrays are gone before the solver allocates.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <new>
#include <utility>

#include "runtime/fault.h"
#include "runtime/progress.h"
#include "runtime/stage_clock.h"
#include "matting/cfmatt.h"
#include "solver/cg_solver.h"
#include "solver/direct_solver.h"

namespace qx {
namespace {

constexpr int kMaxSystemPixels = 2000000;
// The most triples one row can have: nine windows, 9 - a of them in the window where it is a.
constexpr int kLongestRun = 45;

template <typename T>
T* allocArray(int64_t count) {
    return static_cast<T*>(std::malloc(static_cast<size_t>(std::max<int64_t>(count, 1)) * sizeof(T)));
}

// Frees the arrays it holds when it goes out of scope, also on a throw from the solver.
struct ScopedArrays {
    void* items[8] = {};
    int used = 0;
    template <typename T>
    T* add(T* p) {
        items[used++] = p;
        return p;
    }
    // Gives back the tail of an array beyond `count` elements (in place or moved).
    template <typename T>
    T* shrink(T* p, int64_t count) {
        void* q = std::realloc(p, static_cast<size_t>(std::max<int64_t>(count, 1)) * sizeof(T));
        if (!q) return p;  // keeps the larger block
        for (int i = 0; i < used; ++i)
            if (items[i] == p) items[i] = q;
        return static_cast<T*>(q);
    }
    // Hands an array over to a new owner.
    template <typename T>
    T* release(T* p) {
        for (int i = 0; i < used; ++i)
            if (items[i] == p) items[i] = nullptr;
        return p;
    }
    ~ScopedArrays() {
        for (int i = 0; i < used; ++i) std::free(items[i]);
    }
};

// Stable insertion sort of one run by column, carrying the values.
void sortRun(int count, int* cols, float* vals) {
    for (int i = 1; i < count; ++i) {
        const int c = cols[i];
        const float v = vals[i];
        int j = i - 1;
        while (j >= 0 && cols[j] > c) {
            cols[j + 1] = cols[j];
            vals[j + 1] = vals[j];
            --j;
        }
        cols[j + 1] = c;
        vals[j + 1] = v;
    }
}

// Adds up neighbouring entries of one run with equal columns, in place; returns the new count.
int mergeNeighbours(int count, int* cols, float* vals) {
    int w = 0;
    for (int t = 0; t < count; ++t) {
        if (w > 0 && cols[t] == cols[w - 1]) {
            vals[w - 1] += vals[t];
        } else {
            cols[w] = cols[t];
            vals[w] = vals[t];
            ++w;
        }
    }
    return w;
}

// The 13 columns a row can reach through 3x3 windows, at or after the row itself: the row's own
// pixel and the two to its right, then five in each of the next two image rows. Returns the
// slot, ascending with the column, or -1.
inline int neighbourSlot(int offset, int width) {
    if (offset >= 0 && offset <= 2) return offset;
    for (int dy = 1; dy <= 2; ++dy) {
        const int dx = offset - dy * width;
        if (dx >= -2 && dx <= 2) return 3 + (dy - 1) * 5 + dx + 2;
    }
    return -1;
}

// Adds up the entries of one row's run (its triples as a stable sort by row leaves them: in
// window order) of equal column, so that every sum is formed as a stable sort by column followed
// by a merge would form it. A run's columns lie in its pixel's 5x5 neighbourhood, so the sort is
// a bucket per neighbour; anything else falls back to a plain sort. The last run of the whole
// Laplacian (`sorted` false) is merged as it stands, unsorted. Returns the merged count, written
// over the run.
int mergeRun(int row, int count, int* cols, float* vals, int width, bool sorted) {
    if (!sorted) return mergeNeighbours(count, cols, vals);
    float sum[13];
    bool used[13] = {};
    bool bucketed = width >= 5;
    for (int t = 0; t < count && bucketed; ++t) {
        const int slot = neighbourSlot(cols[t] - row, width);
        if (slot < 0) {
            bucketed = false;
        } else if (used[slot]) {
            sum[slot] += vals[t];
        } else {
            used[slot] = true;
            sum[slot] = vals[t];
        }
    }
    if (!bucketed) {
        sortRun(count, cols, vals);
        return mergeNeighbours(count, cols, vals);
    }
    static constexpr int kDx[13] = {0, 1, 2, -2, -1, 0, 1, 2, -2, -1, 0, 1, 2};
    static constexpr int kDy[13] = {0, 0, 0, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2};
    int w = 0;
    for (int slot = 0; slot < 13; ++slot) {
        if (!used[slot]) continue;
        cols[w] = row + kDy[slot] * width + kDx[slot];
        vals[w] = sum[slot];
        ++w;
    }
    return w;
}

// The run of pixel (px, py): the triples (pixel, column, value) that the windows containing it
// hold with the pixel as their row, in window order (centres in raster order, then each window's
// pairs a <= b). Window k's 45 values stand at 45k, pair (a, b) at 9a - a(a-1)/2 + b - a.
int gatherRun(int px, int py, int width, int height, const int* windowAt, const float* values,
              int* cols, float* vals) {
    int count = 0;
    for (int cy = py - 1; cy <= py + 1; ++cy) {
        if (cy < 1 || cy > height - 2) continue;
        for (int cx = px - 1; cx <= px + 1; ++cx) {
            if (cx < 1 || cx > width - 2) continue;
            const int window = windowAt[static_cast<int64_t>(cy) * width + cx];
            if (window < 0) continue;
            const int a = (py - cy + 1) * 3 + (px - cx + 1);
            const float* v = values + 45 * static_cast<int64_t>(window) + 9 * a - a * (a - 1) / 2;
            for (int b = a; b < 9; ++b) {
                cols[count] = (cy - 1 + b / 3) * width + (cx - 1 + b % 3);
                vals[count] = v[b - a];
                ++count;
            }
        }
    }
    return count;
}

}  // namespace

int CFMatt::alphaMain(int width, int height, int tripleCount, Plane8& known, Plane8& core,
                      Plane8& mask) {
    const int64_t pixels = static_cast<int64_t>(width) * height;

    // The system's order is about the windows' count.
    const double windowCount = tripleCount / 45.0;
    ProgressParts parts({SolveSeconds::assembly(windowCount), SolveSeconds::solver(windowCount)});
    // Window ordinals by centre, from the map that chose the windows (before the erosion below).
    std::optional<StageClock> clock(Stage::Windows);
    ScopedArrays sys;
    int* windowAt = sys.add(allocArray<int>(pixels));
    if (!windowAt) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }
    int windows = 0, lastRunPixel = -1;
    for (int y = 0; y < height; ++y) {
        const unsigned char* c = core.row(y);
        int* at = windowAt + static_cast<int64_t>(y) * width;
        for (int x = 0; x < width; ++x) {
            const bool window = y >= 1 && y <= height - 2 && x >= 1 && x <= width - 2 && c[x] == 0;
            at[x] = window ? windows++ : -1;
            // The last window's last pixel has the highest index of any triple's row.
            if (window) lastRunPixel = (y + 1) * width + x + 1;
        }
    }
    if (45 * static_cast<int64_t>(windows) != tripleCount) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }
    progressWithin(0.05);
    progressKick();
    progressKick();
    clock.emplace(Stage::Assembly);

    ErodeMap3x3(core);
    double coreSum = 0.0;
    prim::sum_8u_C1(core.data, core.step, core.size(), &coreSum);
    const int64_t n64 = pixels - static_cast<int>(coreSum / 255.0 + 0.4);
    if (n64 > kMaxSystemPixels) {
        cleanMemAll();
        fail(Fault::SizeLimit);
    }
    const int n = static_cast<int>(n64);

    unknownIndex = allocArray<int>(pixels);
    knownBytes = allocArray<unsigned char>(n);
    maskBytes = allocArray<unsigned char>(n);
    if (!unknownIndex || !knownBytes || !maskBytes) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }
    // Pixels outside the system keep -1: no triple refers to them.
    std::fill(unknownIndex, unknownIndex + pixels, -1);
    int k = 0;
    for (int y = 0; y < height; ++y) {
        const unsigned char* c = core.row(y);
        const unsigned char* kn = known.row(y);
        const unsigned char* ms = mask.row(y);
        for (int x = 0; x < width; ++x) {
            if (c[x] != 0) continue;
            unknownIndex[static_cast<int64_t>(y) * width + x] = k;
            knownBytes[k] = kn[x];
            maskBytes[k] = ms[x];
            ++k;
        }
    }
    progressWithin(0.15);

    alpha = static_cast<float*>(std::malloc(4 * static_cast<size_t>(n) + 32));
    if (!alpha) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }

    // A merged row has at most 13 entries (its forward 5x5 neighbours); the last run, merged
    // unsorted, at most kLongestRun.
    const int64_t entries = 13 * static_cast<int64_t>(n) + kLongestRun + 9;

    const bool direct = useDirectSolver != 0;
    int* ia = sys.add(allocArray<int>(static_cast<int64_t>(n) + 8));
    int* ja = sys.add(allocArray<int>(entries));
    float* af = direct ? sys.add(allocArray<float>(entries)) : nullptr;
    double* ad = direct ? nullptr : sys.add(allocArray<double>(entries));
    double* xd = direct ? nullptr : sys.add(allocArray<double>(n));
    double* bd = direct ? nullptr : sys.add(allocArray<double>(n));
    if (!ia || !ja || (direct ? !af : (!ad || !xd || !bd))) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }

    // Assembly: one row per system pixel, its diagonal first (except in the last run). A row
    // whose pixel belongs to no window keeps the constraint weight alone (0 for an undecided
    // pixel). Columns outside the system are dropped. Rows are built in parallel, each at 13 times
    // its index with its length in ia (the last run, which may be longer, on the side), then
    // moved together in order.
    const int64_t lastPixel = lastRunPixel;
    const int lastRow = lastPixel >= 0 && lastPixel < pixels ? unknownIndex[lastPixel] : -1;
    int lastCols[kLongestRun];
    float lastFloats[kLongestRun];
    double lastDoubles[kLongestRun];
    // In bands of rows, so that a progress listener hears the assembly move.
    constexpr int kBands = 4;
    for (int band = 0; band < kBands; ++band) {
        const int firstRow = static_cast<int>(int64_t(height) * band / kBands);
        const int endRow = static_cast<int>(int64_t(height) * (band + 1) / kBands);
#pragma omp parallel for schedule(dynamic, 16)
        for (int y = firstRow; y < endRow; ++y) {
            int runCols[kLongestRun];
            float runVals[kLongestRun];
            for (int x = 0; x < width; ++x) {
                const int64_t p = static_cast<int64_t>(y) * width + x;
                const int row = unknownIndex[p];
                if (row < 0) continue;
                if (direct) {
                    alpha[row] = static_cast<float>(knownBytes[row]) * static_cast<float>(maskBytes[row]) / 255.0f;
                } else {
                    xd[row] = maskBytes[row] / 255.0;
                    bd[row] = xd[row] * knownBytes[row];
                }
                const int64_t at = 13 * static_cast<int64_t>(row);
                const bool last = row == lastRow;
                int* cols = last ? lastCols : ja + at;
                float* fv = last ? lastFloats : direct ? af + at : nullptr;
                double* dv = last ? lastDoubles : direct ? nullptr : ad + at;
                int written = 0;
                auto put = [&](int column, float v) {
                    cols[written] = column;
                    if (direct) fv[written] = v; else dv[written] = v;
                    ++written;
                };
                int count = gatherRun(x, y, width, height, windowAt, lapVals, runCols, runVals);
                if (count == 0) {
                    put(row + 1, knownBytes[row]);
                } else {
                    count = mergeRun(static_cast<int>(p), count, runCols, runVals, width, p != lastPixel);
                    for (int t = 0; t < count; ++t) {
                        const int c = unknownIndex[runCols[t]];
                        if (c == row)
                            put(c + 1, knownBytes[row] + lapDiag[p] - runVals[t]);
                        else if (c > row)
                            put(c + 1, 0 - runVals[t]);
                    }
                }
                ia[row] = written;
            }
        }
        progressWithin(0.15 + 0.75 * (band + 1) / kBands);
    }
    int pos = 0;
    for (int row = 0; row < n; ++row) {
        const int count = ia[row];
        const int64_t at = 13 * static_cast<int64_t>(row);
        const bool last = row == lastRow;
        std::memmove(ja + pos, last ? lastCols : ja + at, sizeof(int) * size_t(count));
        if (direct)
            std::memmove(af + pos, last ? lastFloats : af + at, sizeof(float) * size_t(count));
        else
            std::memmove(ad + pos, last ? lastDoubles : ad + at, sizeof(double) * size_t(count));
        ia[row] = pos + 1;
        pos += count;
    }
    ia[n] = pos + 1;
    std::free(sys.release(windowAt));
    // The rows were built at 13 entries apiece; the solver keeps only what they hold.
    ja = sys.shrink(ja, pos);
    if (direct) af = sys.shrink(af, pos); else ad = sys.shrink(ad, pos);
    freeLaplacian();
    progressKick();
    parts.next();
    clock.emplace(Stage::Solver);

    if (direct) {
        float* x = sys.add(allocArray<float>(n));
        if (!x) {
            cleanMemAll();
            fail(Fault::ArrayMemory);
        }
        // The solver owns the system from here on: a cancelled job may leave the solve running.
        std::shared_ptr<detail::SystemArrays> system;
        try {
            system = std::make_shared<detail::SystemArrays>();
        } catch (const std::bad_alloc&) {
            cleanMemAll();
            fail(Fault::ArrayMemory);
        }
        system->a = sys.release(af);
        system->ia = sys.release(ia);
        system->ja = sys.release(ja);
        int failed;
        try {
            detail::DirectSolveOptions options;
            options.refinementSteps = refinementSteps;
            failed = !detail::directSolveOwned(options, n, std::move(system), alpha, x, 1, -2,
                                               nullptr);
        } catch (...) {
            cleanMemAll();
            throw;
        }
        if (failed) {
            cleanMemAll();
            fail(Fault::SolverMemory);
        }
    } else {
        double* tmp = sys.add(static_cast<double*>(std::malloc(sizeof(double) * 4 * static_cast<size_t>(n) + 64)));
        if (!tmp) {
            cleanMemAll();
            fail(Fault::ArrayMemory);
        }
        const int maxIterations = std::min(n, 500);
        cgSolver_jacobi(n, ad, ia, ja, bd, xd, tmp, maxIterations, 0.001);
        const int iterations = cgSolver_jacobi(n, ad, ia, ja, bd, xd, tmp, maxIterations, 0.00001);
        for (int i = 0; i < n; ++i) alpha[i] = static_cast<float>(xd[i]);
        if (iterations < 0) {
            cleanMemAll();
            // The gradient solver's -1..-3 stand for the direct solver's three phases.
            fail(Fault(iterations + int(Fault::SolverMemory) - 1));
        }
    }

    clock.emplace(Stage::Output);
    const prim::Size solution{n, 1};
    const int rowStep = static_cast<int>(std::min<int64_t>(4 * static_cast<int64_t>(n), INT32_MAX));
    prim::mulC_32f_C1I(255.0f, alpha, rowStep, solution);
    prim::clampAbove_32f_C1I(alpha, rowStep, solution, 255.0f);
    prim::clampBelow_32f_C1I(alpha, rowStep, solution, 0.0f);
    return 0;
}

}  // namespace qx
