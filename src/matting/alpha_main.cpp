// From the Laplacian's triples to alpha: sort and merge the triples into one sparse symmetric
// system (upper triangle, compressed rows, one-based) over the pixels that need solving, solve
// (L + C) x = C a, and scale the solution to 0..255.
//
// Peak memory matters more than anything here: every array is released at the first point it
// is no longer needed, and the Laplacian's arrays are gone before the solver allocates.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "frame/progress.h"
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
    for (int t = 0; t < count; ++t) scratch[t] = rows[perm[t]];
    std::swap(rows, scratch);
    for (int t = 0; t < count; ++t) scratch[t] = cols[perm[t]];
    std::swap(cols, scratch);
    float* sortedVals = reinterpret_cast<float*>(scratch);
    for (int t = 0; t < count; ++t) sortedVals[t] = vals[perm[t]];
    std::free(vals);
    vals = sortedVals;
    std::free(perm);
    return true;
}

// Sorts each run of one row by column, carrying the values (stable insertion sort: runs hold at
// most 81 triples). The last run is left as the row sort gave it: the walk handles a run only
// when the next one begins.
void sortRuns(int count, const int* rows, int* cols, float* vals) {
    int runStart = 0;
    for (int t = 1; t < count; ++t) {
        if (rows[t] == rows[runStart]) continue;
        for (int i = runStart + 1; i < t; ++i) {
            const int c = cols[i];
            const float v = vals[i];
            int j = i - 1;
            while (j >= runStart && cols[j] > c) {
                cols[j + 1] = cols[j];
                vals[j + 1] = vals[j];
                --j;
            }
            cols[j + 1] = c;
            vals[j + 1] = v;
        }
        runStart = t;
    }
}

// Adds up neighbouring triples of equal row and column; returns the merged count.
int mergeTriples(int count, int* rows, int* cols, float* vals) {
    if (count == 0) return 0;
    int w = 0;
    for (int t = 1; t < count; ++t) {
        if (rows[t] == rows[w] && cols[t] == cols[w]) {
            vals[w] += vals[t];
        } else {
            ++w;
            rows[w] = rows[t];
            cols[w] = cols[t];
            vals[w] = vals[t];
        }
    }
    return w + 1;
}

}  // namespace

int CFMatt::alphaMain(int width, int height, int tripleCount, Plane8& known, Plane8& core,
                      Plane8& mask) {
    const int64_t pixels = static_cast<int64_t>(width) * height;

    if (!sortTriplesByRow(pixels, tripleCount, lapRows, lapCols, lapVals)) {
        cleanMemAll();
        throw 130;
    }
    progressKick();
    sortRuns(tripleCount, lapRows, lapCols, lapVals);
    const int m = mergeTriples(tripleCount, lapRows, lapCols, lapVals);
    progressKick();

    ErodeMap3x3(core);
    double coreSum = 0.0;
    prim::sum_8u_C1(core.data, core.step, core.size(), &coreSum);
    const int64_t n64 = pixels - static_cast<int>(coreSum / 255.0 + 0.4);
    if (n64 > kMaxSystemPixels) {
        cleanMemAll();
        throw -1;
    }
    const int n = static_cast<int>(n64);

    unknownIndex = allocArray<int>(pixels);
    knownBytes = allocArray<unsigned char>(n);
    maskBytes = allocArray<unsigned char>(n);
    if (!unknownIndex || !knownBytes || !maskBytes) {
        cleanMemAll();
        throw 130;
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
        throw 130;
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
        throw 130;
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

    if (direct) {
        float* x = sys.add(allocArray<float>(n));
        if (!x) {
            cleanMemAll();
            throw 130;
        }
        int failed;
        try {
            failed = pardisoSolver(n, af, ia, ja, alpha, x, 1, -2);
        } catch (...) {
            cleanMemAll();
            throw;
        }
        if (failed) {
            cleanMemAll();
            throw 125;
        }
    } else {
        double* tmp = sys.add(static_cast<double*>(std::malloc(sizeof(double) * 4 * static_cast<size_t>(n) + 64)));
        if (!tmp) {
            cleanMemAll();
            throw 130;
        }
        const int maxIterations = std::min(n, 500);
        cgSolver_jacobi(n, ad, ia, ja, bd, xd, tmp, maxIterations, 0.001);
        const int iterations = cgSolver_jacobi(n, ad, ia, ja, bd, xd, tmp, maxIterations, 0.00001);
        for (int i = 0; i < n; ++i) alpha[i] = static_cast<float>(xd[i]);
        if (iterations < 0) {
            cleanMemAll();
            throw iterations + 124;
        }
    }

    const prim::Size row{n, 1};
    const int rowStep = static_cast<int>(std::min<int64_t>(4 * static_cast<int64_t>(n), INT32_MAX));
    prim::mulC_32f_C1I(255.0f, alpha, rowStep, row);
    prim::clampAbove_32f_C1I(alpha, rowStep, row, 255.0f);
    prim::clampBelow_32f_C1I(alpha, rowStep, row, 0.0f);
    return 0;
}

}  // namespace qx
