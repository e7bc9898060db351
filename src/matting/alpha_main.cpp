// From the Laplacian's triples to alpha: sort and merge the triples into one sparse symmetric
// system (upper triangle, compressed rows, one-based) over the pixels that need solving, solve
// (L + C) x = C a, and scale the solution to 0..255.
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

#include "frame/fault.h"
#include "frame/progress.h"
#include "frame/stage_clock.h"
#include "matting/cfmatt.h"
#include "solver/cg_solver.h"
#include "solver/direct_solver.h"

namespace qx {
namespace {

constexpr int kMaxSystemPixels = 2000000;

template <typename T>
T* allocArray(int64_t count) {
    return static_cast<T*>(std::malloc(static_cast<size_t>(std::max<int64_t>(count, 1)) * sizeof(T)));
}

// Frees the arrays it holds when it goes out of scope, also on a throw from the solver.
struct ScopedArrays {
    void* items[6] = {};
    int used = 0;
    template <typename T>
    T* add(T* p) {
        items[used++] = p;
        return p;
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

// Sorts the triples by row in linear time: a counting sort over the image's raster indices.
// The order among triples of one row stays their window order. Returns false when an array
// could not be allocated.
bool sortTriplesByRow(int64_t pixels, int count, int*& rows, int*& cols, float*& vals) {
    int* perm = allocArray<int>(count);
    int* start = static_cast<int*>(std::calloc(static_cast<size_t>(pixels) + 1, sizeof(int)));
    if (!perm || !start) {
        std::free(perm);
        std::free(start);
        return false;
    }
    for (int t = 0; t < count; ++t) ++start[rows[t] + 1];
    for (int64_t p = 0; p < pixels; ++p) start[p + 1] += start[p];
    for (int t = 0; t < count; ++t) perm[start[rows[t]]++] = t;
    std::free(start);

    // Apply the permutation through one scratch array: the old column array then takes the
    // permuted values.
    int* scratch = allocArray<int>(count);
    if (!scratch) {
        std::free(perm);
        return false;
    }
#pragma omp parallel for schedule(static)
    for (int t = 0; t < count; ++t) scratch[t] = rows[perm[t]];
    std::swap(rows, scratch);
#pragma omp parallel for schedule(static)
    for (int t = 0; t < count; ++t) scratch[t] = cols[perm[t]];
    std::swap(cols, scratch);
    float* sortedVals = reinterpret_cast<float*>(scratch);
#pragma omp parallel for schedule(static)
    for (int t = 0; t < count; ++t) sortedVals[t] = vals[perm[t]];
    std::free(vals);
    vals = sortedVals;
    std::free(perm);
    return true;
}

// Stable insertion sort of one run by column, carrying the values.
void sortRun(int begin, int end, int* cols, float* vals) {
    for (int i = begin + 1; i < end; ++i) {
        const int c = cols[i];
        const float v = vals[i];
        int j = i - 1;
        while (j >= begin && cols[j] > c) {
            cols[j + 1] = cols[j];
            vals[j + 1] = vals[j];
            --j;
        }
        cols[j + 1] = c;
        vals[j + 1] = v;
    }
}

// Adds up neighbouring triples of equal row and column of [begin, end) into the write position
// *w (at or before begin); returns the new write position.
int mergeRange(int begin, int end, int w, int* rows, int* cols, float* vals) {
    for (int t = begin; t < end; ++t) {
        if (w > 0 && rows[t] == rows[w - 1] && cols[t] == cols[w - 1]) {
            vals[w - 1] += vals[t];
        } else {
            rows[w] = rows[t];
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

// Sorts each run of one row by column and adds up the triples of equal row and column, in the
// order they stand (window order), so that every sum is formed as a stable sort followed by a
// merge would form it. A run's columns lie in its pixel's 5x5 neighbourhood, so the sort is a
// bucket per neighbour; anything else falls back to a plain sort. The last run is merged as the
// row sort left it, unsorted: a run is sorted only when the next one begins. Returns the merged
// count.
int sortAndMergeRuns(int count, int* rows, int* cols, float* vals, int width) {
    int w = 0;
    int begin = 0;
    while (begin < count) {
        int end = begin + 1;
        while (end < count && rows[end] == rows[begin]) ++end;
        if (end == count) return mergeRange(begin, end, w, rows, cols, vals);

        const int row = rows[begin];
        float sum[13];
        bool used[13] = {};
        bool bucketed = width >= 5;
        for (int t = begin; t < end && bucketed; ++t) {
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
        if (bucketed) {
            static constexpr int kDx[13] = {0, 1, 2, -2, -1, 0, 1, 2, -2, -1, 0, 1, 2};
            static constexpr int kDy[13] = {0, 0, 0, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2};
            for (int slot = 0; slot < 13; ++slot) {
                if (!used[slot]) continue;
                rows[w] = row;
                cols[w] = row + kDy[slot] * width + kDx[slot];
                vals[w] = sum[slot];
                ++w;
            }
        } else {
            sortRun(begin, end, cols, vals);
            w = mergeRange(begin, end, w, rows, cols, vals);
        }
        begin = end;
    }
    return w;
}

}  // namespace

int CFMatt::alphaMain(int width, int height, int tripleCount, Plane8& known, Plane8& core,
                      Plane8& mask) {
    const int64_t pixels = static_cast<int64_t>(width) * height;

    std::optional<StageClock> clock(Stage::Sort);
    if (!sortTriplesByRow(pixels, tripleCount, lapRows, lapCols, lapVals)) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }
    progressKick();
    const int m = sortAndMergeRuns(tripleCount, lapRows, lapCols, lapVals, width);
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

    alpha = static_cast<float*>(std::malloc(4 * static_cast<size_t>(n) + 32));
    if (!alpha) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }

    // Rows of pixels that belong to no window hold their diagonal alone, an entry that is not
    // among the m merged triples: they are counted so that the arrays always suffice.
    int rowsWithTriples = 0;
    for (int i = 0; i < m; ++i) rowsWithTriples += (i == 0 || lapRows[i] != lapRows[i - 1]);
    const int64_t entries = static_cast<int64_t>(m) + std::max(0, n - rowsWithTriples) + 9;

    const bool direct = useDirectSolver != 0;
    ScopedArrays sys;
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

    // Assembly: one row per system pixel, its diagonal first. A row whose pixel belongs to no
    // window keeps the constraint weight alone (0 for an undecided pixel).
    int t = 0;
    int pos = 0;
    for (int row = 0; row < n; ++row) {
        if (direct) {
            alpha[row] = static_cast<float>(knownBytes[row]) * static_cast<float>(maskBytes[row]) / 255.0f;
        } else {
            xd[row] = maskBytes[row] / 255.0;
            bd[row] = xd[row] * knownBytes[row];
        }
        ia[row] = pos + 1;
        while (t < m && unknownIndex[lapRows[t]] < row) ++t;  // cannot happen; keeps the walk safe
        const int r = t < m ? unknownIndex[lapRows[t]] : n;
        if (r > row) {
            if (direct) af[pos] = knownBytes[row]; else ad[pos] = knownBytes[row];
            ja[pos] = row + 1;
            ++pos;
            continue;
        }
        for (; t < m && unknownIndex[lapRows[t]] == row; ++t) {
            const int c = unknownIndex[lapCols[t]];
            float v;
            if (c == row) {
                v = knownBytes[row] + lapDiag[lapRows[t]] - lapVals[t];
            } else if (c > row) {
                v = 0 - lapVals[t];
            } else {
                continue;
            }
            if (direct) af[pos] = v; else ad[pos] = v;
            ja[pos] = c + 1;
            ++pos;
        }
    }
    ia[n] = pos + 1;
    freeLaplacian();
    progressKick();
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
            failed = pardisoSolverOwned(n, std::move(system), alpha, x, 1, -2);
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
            throw iterations + int(Fault::SolverMemory) - 1;
        }
    }

    clock.emplace(Stage::Output);
    const prim::Size row{n, 1};
    const int rowStep = static_cast<int>(std::min<int64_t>(4 * static_cast<int64_t>(n), INT32_MAX));
    prim::mulC_32f_C1I(255.0f, alpha, rowStep, row);
    prim::clampAbove_32f_C1I(alpha, rowStep, row, 255.0f);
    prim::clampBelow_32f_C1I(alpha, rowStep, row, 0.0f);
    return 0;
}

}  // namespace qx
