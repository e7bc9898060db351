// The flows' solve: the neighbour search against brute force, the weights' invariants (mixtures
// sum to one and rebuild what they can, intra-unknown links symmetric, local rows summing to
// zero), the combined system symmetric positive definite, and the whole solve's cancel (its
// result on holes deep inside the undecided band: mask_alpha_flow_test.cpp, through the export).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>
#include <numeric>
#include <omp.h>
#include <random>
#include <vector>

#include "flows/colour_mixture.h"
#include "flows/feature_space.h"
#include "flows/flow_solve.h"
#include "flows/flow_system.h"
#include "flows/known_unknown.h"
#include "flows/local_laplacian.h"
#include "flows/unknown_unknown.h"
#include "runtime/fault.h"
#include "runtime/progress.h"
#include "support/holes_scene.h"

using namespace qx::flows;
using flowtest::holesScene;
using flowtest::Scene;

namespace {

// n points of the feature space, uniform in the unit cube.
std::vector<float> randomPoints(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<float> pts(size_t(n) * kFeatureDims);
    for (auto& v : pts) v = u(rng);
    return pts;
}

// Row r's weight at column c (0 where the row has no entry).
double weightAt(const WeightRows& w, int r, int c) {
    for (int e = w.start[size_t(r)]; e < w.start[size_t(r) + 1]; ++e)
        if (w.cols[size_t(e)] == c) return double(w.weights[size_t(e)]);
    return 0.0;
}

}  // namespace

// The exact search on n points against brute force, for `queries` of the points (themselves
// left out). A third of the points share their first coordinate, as 8-bit pixels share colours.
// The queries run on all threads at once, so that a tree split on demand is split by several.
void expectExactSearch(int n, int queries, KdTree::Split split) {
    const int k = 9;
    std::vector<float> pts = randomPoints(n, 5);
    for (int i = 0; i < n; i += 3) pts[size_t(i) * kFeatureDims] = 0.5f;
    KdTree tree;
    tree.build(pts.data(), n, {}, split);
#pragma omp parallel for schedule(dynamic, 1)
    for (int q = 0; q < queries; ++q) {
        const int self = int(int64_t(q) * 7919 % n);
        const float* query = pts.data() + int64_t(self) * kFeatureDims;
        int names[k];
        float dist[k];
        EXPECT_EQ(tree.nearest(query, k, self, names, dist), k);
        std::vector<float> all;
        for (int i = 0; i < n; ++i) {
            float d = 0.0f;
            for (int c = 0; c < kFeatureDims; ++c) {
                const float t = pts[size_t(i) * kFeatureDims + c] - query[c];
                d += t * t;
            }
            if (i != self) all.push_back(d);
        }
        std::sort(all.begin(), all.end());
        for (int j = 0; j < k; ++j) {
            EXPECT_FLOAT_EQ(dist[j], all[size_t(j)]) << "query " << q << " rank " << j;
            EXPECT_NE(names[j], self);
        }
    }
}

TEST(FlowsNeighbours, ExactSearchMatchesBruteForce) {
    for (KdTree::Split split : {KdTree::Split::Whole, KdTree::Split::OnDemand}) {
        expectExactSearch(3000, 200, split);
        // Large enough for the tree's top halves to be split apart, and on demand for most of
        // its nodes to be left to the searches.
        expectExactSearch(70000, 60, split);
    }
}

TEST(FlowsNeighbours, TheTreeIsTheSameOnAnyNumberOfThreads) {
    // A budgeted search depends on the order of the points in the leaves, not only on the
    // tree's splits: the same neighbours on one thread and on four say the same tree.
    const int n = 70000, k = 7;
    const std::vector<float> pts = randomPoints(n, 11);
    std::vector<int> found[2];
    const int threads[2] = {1, 4};
    const int before = omp_get_max_threads();
    for (int t = 0; t < 2; ++t) {
        omp_set_num_threads(threads[t]);
        KdTree tree;
        tree.build(pts.data(), n);
        found[t] = nearestAll(tree, pts.data(), n, k, {}, 32);
    }
    omp_set_num_threads(before);
    EXPECT_EQ(found[0], found[1]);
}

TEST(FlowsNeighbours, ATreeSplitOnDemandIsTheWholeTree) {
    // Budgeted searches, a leaf's order included: the whole tree on one thread against one split
    // by the searches of four threads as they go, over clustered points (most of them in a few
    // small clouds, as an image's colours are) and queries from one part of the space only.
    const int n = 60000, k = 7;
    std::mt19937 rng(3);
    std::normal_distribution<float> spread(0.0f, 0.02f);
    std::vector<float> pts = randomPoints(n, 13);
    for (int i = 0; i < n; i += 4)
        for (int c = 0; c < kFeatureDims; ++c)
            pts[size_t(i) * kFeatureDims + c] = float(i % 3) * 0.3f + spread(rng);
    std::vector<float> queries;
    for (int i = 0; i < n; ++i)
        if (pts[size_t(i) * kFeatureDims + 3] < 0.3f)
            queries.insert(queries.end(), pts.begin() + int64_t(i) * kFeatureDims,
                           pts.begin() + int64_t(i + 1) * kFeatureDims);
    const int count = int(queries.size()) / kFeatureDims;
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    KdTree whole;
    whole.build(pts.data(), n);
    const std::vector<int> expected = nearestAll(whole, queries.data(), count, k, {}, 32);
    omp_set_num_threads(4);
    KdTree onDemand;
    onDemand.build(pts.data(), n, {}, KdTree::Split::OnDemand);
    const std::vector<int> found = nearestAll(onDemand, queries.data(), count, k, {}, 32);
    omp_set_num_threads(before);
    EXPECT_EQ(found, expected);
}

TEST(FlowsNeighbours, AFailureInsideTheSlicesIsThrownOnTheCallingThread) {
    const int n = 100000;
    std::vector<int> done(size_t(n), 0);
    EXPECT_THROW(forSlices(n, {},
                           [&](int first, int last) {
                               if (first <= n / 2 && n / 2 < last) throw std::bad_alloc();
                               for (int i = first; i < last; ++i) done[size_t(i)] = 1;
                           }),
                 std::bad_alloc);
    // Nothing after the failing slice was started.
    EXPECT_EQ(std::count(done.begin() + n * 3 / 4, done.end(), 1), 0);
}

TEST(FlowsNeighbours, BudgetedSearchGivesDistinctNeighboursNearFirst) {
    const int n = 5000, k = 20;
    const std::vector<float> pts = randomPoints(n, 8);
    KdTree tree;
    tree.build(pts.data(), n);
    std::vector<int> self(static_cast<size_t>(n));
    std::iota(self.begin(), self.end(), 0);
    const std::vector<int> found = nearestAll(tree, pts.data(), n, k, self, 32);
    for (int i = 0; i < n; ++i) {
        std::vector<int> row(found.begin() + int64_t(i) * k, found.begin() + int64_t(i + 1) * k);
        for (int v : row) EXPECT_TRUE(v >= 0 && v != i) << v << " for " << i;
        std::sort(row.begin(), row.end());
        EXPECT_EQ(std::unique(row.begin(), row.end()), row.end());
    }
}

TEST(FlowsWeights, MixtureRebuildsAnAffineCombinationAndSharesEqualNeighboursEvenly) {
    // The target is 0.4 n0 + 0.2 n1 + 0.3 n2 + 0.1 n3 of four affinely independent points: the
    // only affine weights that rebuild it exactly.
    const float nb[12] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    const float target[3] = {0.2f, 0.3f, 0.1f};
    double w[4];
    mixtureWeights(target, nb, 4, 3, 1e-7, w);
    const double expected[4] = {0.4, 0.2, 0.3, 0.1};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(w[i], expected[i], 1e-4);
    // Equal neighbours share evenly.
    float same[9];
    std::fill(same, same + 9, 0.5f);
    mixtureWeights(same, same, 3, 3, 1e-3, w);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(w[i], 1.0 / 3.0, 1e-12);
}

TEST(FlowsWeights, IntraUnknownLinksAreSymmetricAndBounded) {
    const Scene s = holesScene(64, 8);
    const FlowImage image = s.image();
    const PixelSets sets = classifyPixels(image);
    const WeightRows w = unknownUnknownWeights(image, sets, {});
    int links = 0;
    for (int r = 0; r < w.rows(); ++r)
        for (int e = w.start[size_t(r)]; e < w.start[size_t(r) + 1]; ++e) {
            const int c = w.cols[size_t(e)];
            EXPECT_NE(c, r);
            EXPECT_GT(w.weights[size_t(e)], 0.0f);
            EXPECT_LE(w.weights[size_t(e)], 2.0f);  // a link found from both ends counts twice
            EXPECT_EQ(w.weights[size_t(e)], weightAt(w, c, r));
            if (e > w.start[size_t(r)]) {
                EXPECT_LT(w.cols[size_t(e) - 1], c);  // merged, ascending
            }
            ++links;
        }
    EXPECT_GE(links, w.rows());  // every pixel links to its neighbours
    // The links are gathered on all threads: the same rows on one.
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    const WeightRows one = unknownUnknownWeights(image, sets, {});
    omp_set_num_threads(before);
    EXPECT_EQ(one.start, w.start);
    EXPECT_EQ(one.cols, w.cols);
    EXPECT_EQ(one.weights, w.weights);
}

TEST(FlowsWeights, LocalRowsSumToZeroAndAreSymmetric) {
    const Scene s = holesScene(48, 6);
    const FlowImage image = s.image();
    const PixelSets sets = classifyPixels(image);
    const WeightRows L = localLaplacianRows(image, sets, 1e-8);
    ASSERT_EQ(L.rows(), static_cast<int>(sets.unknown.size()));
    for (int r = 0; r < L.rows(); ++r) {
        const int self = sets.unknown[size_t(r)];
        double sum = 0.0, scale = 0.0;
        for (int e = L.start[size_t(r)]; e < L.start[size_t(r) + 1]; ++e) {
            sum += L.weights[size_t(e)];
            scale = std::max(scale, std::abs(double(L.weights[size_t(e)])));
            const int q = sets.unknownIndex[size_t(L.cols[size_t(e)])];
            if (q >= 0) {
                EXPECT_NEAR(L.weights[size_t(e)], weightAt(L, q, self), 1e-4 * scale);
            }
        }
        EXPECT_NEAR(sum, 0.0, 1e-4 * scale) << "row " << r;
        EXPECT_GT(weightAt(L, r, self), 0.0);
    }
}

TEST(FlowsWeights, KnownUnknownEstimateFollowsTheMixture) {
    // Flat layers: every undecided colour is an exact mixture of the two, so the foreground's
    // share of the rebuilding weights is alpha, and the confidence is the layers' distance.
    const int size = 48;
    Scene s = holesScene(size, 6, false);
    const double F[3] = {40, 60, 220}, B[3] = {200, 120, 30};
    for (int p = 0; p < size * size; ++p)
        for (int c = 0; c < 3; ++c)
            s.planes[c][size_t(p)] = static_cast<unsigned char>(
                std::lround(s.alpha[size_t(p)] * F[c] + (1 - s.alpha[size_t(p)]) * B[c]));
    const FlowImage image = s.image();
    const PixelSets sets = classifyPixels(image);
    const KnownUnknownEstimate e = knownUnknownFlow(image, sets, {});
    double d2 = 0.0;
    for (int c = 0; c < 3; ++c) d2 += (F[c] - B[c]) * (F[c] - B[c]) / (255.0 * 255.0);
    for (size_t r = 0; r < sets.unknown.size(); ++r) {
        EXPECT_NEAR(e.alpha[r], s.alpha[size_t(sets.unknown[r])], 0.02) << "pixel " << r;
        EXPECT_NEAR(e.confidence[r], d2 / 3.0, 0.02);
    }
}

TEST(FlowsSystem, SymmetricPositiveDefiniteOnTheUnknowns) {
    const Scene s = holesScene(32, 4);
    const FlowImage image = s.image();
    const PixelSets sets = classifyPixels(image);
    const int n = static_cast<int>(sets.unknown.size());
    ASSERT_GT(n, 50);
    ASSERT_LT(n, 1000);
    const WeightRows cm = colourMixtureWeights(image, sets, {});
    const WeightRows uu = unknownUnknownWeights(image, sets, {});
    const WeightRows L = localLaplacianRows(image, sets, 1e-8);
    const KnownUnknownEstimate ku = knownUnknownFlow(image, sets, {});
    for (const FlowWeights& w : {FlowWeights{1, 1, 0.01, 0.05}, FlowWeights{1, 0, 0, 0.05},
                                 FlowWeights{0, 1, 0, 0}, FlowWeights{0, 0, 1, 0.05}}) {
        const FlowSystem sys = assembleFlowSystem(sets, {&cm, &L, &uu, &ku}, w);
        // A column by column through the product.
        std::vector<double> A(size_t(n) * n), e(size_t(n), 0.0), col(static_cast<size_t>(n)), scratch,
            partial;
        for (int j = 0; j < n; ++j) {
            e[size_t(j)] = 1.0;
            const double ejAej = sys.apply(e.data(), col.data(), scratch, partial);
            e[size_t(j)] = 0.0;
            EXPECT_EQ(ejAej, col[size_t(j)]);  // the product's x.y
            for (int i = 0; i < n; ++i) A[size_t(i) * n + j] = col[size_t(i)];
            EXPECT_NEAR(sys.diagonal[size_t(j)], col[size_t(j)], 1e-7 * std::abs(col[size_t(j)]));
        }
        double scale = 0.0;
        for (double v : A) scale = std::max(scale, std::abs(v));
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < i; ++j)
                ASSERT_NEAR(A[size_t(i) * n + j], A[size_t(j) * n + i], 1e-6 * scale);
        // Cholesky: every pivot positive.
        for (int j = 0; j < n; ++j) {
            double d = A[size_t(j) * n + j];
            for (int t = 0; t < j; ++t) d -= A[size_t(j) * n + t] * A[size_t(j) * n + t];
            ASSERT_GT(d, 1e-12 * scale) << "pivot " << j;
            const double l = std::sqrt(d);
            A[size_t(j) * n + j] = l;
            for (int i = j + 1; i < n; ++i) {
                double v = A[size_t(i) * n + j];
                for (int t = 0; t < j; ++t) v -= A[size_t(i) * n + t] * A[size_t(j) * n + t];
                A[size_t(i) * n + j] = v / l;
            }
        }
    }
}

// Each explicit row holds every column once, ascending, and each entry is the sum of what the
// terms give it: the local Laplacian's weight (its columns are box pixels), minus the link's,
// and on the diagonal also the links' sum and the estimate's confidence. Worked out here from the
// terms themselves, so a row whose runs were merged out of order, or whose equal columns were
// not added up, fails.
TEST(FlowsSystem, ExplicitRowsHoldEachColumnOnceAsTheTermsSumIt) {
    const Scene s = holesScene(32, 4);
    const FlowImage image = s.image();
    const PixelSets sets = classifyPixels(image);
    const int n = static_cast<int>(sets.unknown.size());
    const WeightRows uu = unknownUnknownWeights(image, sets, {});
    const WeightRows L = localLaplacianRows(image, sets, 1e-8);
    const KnownUnknownEstimate ku = knownUnknownFlow(image, sets, {});
    const FlowWeights w{0.0, 0.7, 0.3, 0.05};
    const FlowSystem sys = assembleFlowSystem(sets, {nullptr, &L, &uu, &ku}, w);
    const SparseRows& A = sys.explicitPart;
    int shared = 0;  // links to a column the local row holds too: equal columns to add up
    for (int r = 0; r < n; ++r) {
        std::vector<double> want(size_t(n), 0.0);
        std::vector<bool> local(size_t(n), false);
        for (int e = L.start[size_t(r)]; e < L.start[size_t(r) + 1]; ++e) {
            const int c = sets.unknownIndex[size_t(L.cols[size_t(e)])];
            if (c < 0) continue;
            want[size_t(c)] += w.local * L.weights[size_t(e)];
            local[size_t(c)] = true;
        }
        for (int e = uu.start[size_t(r)]; e < uu.start[size_t(r) + 1]; ++e) {
            want[size_t(uu.cols[size_t(e)])] -= w.unknownUnknown * uu.weights[size_t(e)];
            want[size_t(r)] += w.unknownUnknown * uu.weights[size_t(e)];
            shared += local[size_t(uu.cols[size_t(e)])];
        }
        want[size_t(r)] += w.knownUnknown * ku.confidence[size_t(r)];
        std::vector<double> got(size_t(n), 0.0);
        for (int e = A.start[size_t(r)]; e < A.start[size_t(r) + 1]; ++e) {
            if (e > A.start[size_t(r)]) {
                ASSERT_LT(A.cols[size_t(e) - 1], A.cols[size_t(e)]) << "row " << r;
            }
            got[size_t(A.cols[size_t(e)])] = A.values[size_t(e)];
        }
        for (int c = 0; c < n; ++c)
            ASSERT_NEAR(got[size_t(c)], want[size_t(c)], 1e-6 * (1.0 + std::abs(want[size_t(c)])))
                << "row " << r << " column " << c;
    }
    EXPECT_GT(shared, 0);
}

TEST(FlowsSolve, StopsWhenCancelled) {
    const Scene s = holesScene(64, 8);
    volatile int32_t flag = 1;
    qx::setCancelFlag(&flag);
    int thrown = 0;
    try {
        std::vector<unsigned char> out(s.tri.size());
        flowAlpha(s.image(), FlowOptions{}, out.data(), s.width);
    } catch (const qx::Failure& e) {
        thrown = e.value();
    }
    qx::setCancelFlag(nullptr);
    EXPECT_EQ(thrown, int(qx::Fault::Cancelled));
}
