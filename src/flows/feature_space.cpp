#include "flows/feature_space.h"

#include <algorithm>
#include <cstring>
#include <emmintrin.h>
#include <numeric>
#include <thread>
#include <utility>

namespace qx::flows {
namespace {

// A search's cost is mostly its walk down and across the tree; larger leaves shorten it. At 16
// against 10 the tri-map workflow took 0.91-0.92 of the time on the benchmark photos, its mean
// SAD 3.769 / 4.280 against 3.774 / 4.257 (within what the order of equally near points moves),
// strokes 4.60 against 4.51 (bench/README.md, "The serial parts, the product's sums, and leaves
// of 16 points").
constexpr int kLeafSize = 16;
constexpr int kHeapSize = 512;

// The k best so far, nearest first, by place in the tree; `worst` is the k-th distance once k
// are held (kept beside them: every point compared and every plane is tested against it).
struct Best {
    int k = 0, held = 0;
    float bound = 3.4e38f;
    int slots[kMaxNeighbours];
    float dist[kMaxNeighbours];
    float worst() const { return bound; }
    void offer(int slot, float d) {
        if (d >= bound) return;
        // A point met twice (a hint's, then in its leaf) has the same distance both times.
        for (int j = held - 1; j >= 0 && dist[j] >= d; --j)
            if (dist[j] == d && slots[j] == slot) return;
        int i = held < k ? held++ : k - 1;
        while (i > 0 && dist[i - 1] > d) {
            dist[i] = dist[i - 1];
            slots[i] = slots[i - 1];
            --i;
        }
        dist[i] = d;
        slots[i] = slot;
        if (held == k) bound = dist[k - 1];
    }
};

using Point = KdTree::Point;

// Nodes of at least this many points are split before build returns, their halves as tasks of
// their own (on any thread) from twice as many; below it a node is split on the thread that
// holds it, at once or, on demand, by the first search that enters it.
constexpr int kTaskPoints = 16384;

enum NodeState : unsigned char { kUnsplit, kBusy, kSplit, kLeaf };

// A point's place along one coordinate as an integer: the coordinate's bits made to order as
// the floats do, the point's index below them. No two points share one, so the median is one
// point however many share its coordinate.
inline uint64_t splitKey(const Point& x, int dim) {
    const float v = x.p[dim] + 0.0f;  // -0 as +0, which compare equal
    uint32_t u;
    std::memcpy(&u, &v, sizeof u);
    u = (u & 0x80000000u) ? ~u : (u | 0x80000000u);
    return (uint64_t(u) << 32) | uint32_t(x.index);
}

// splitKey(a, dim) < splitKey(b, dim), without making the keys: the coordinates compared as
// floats (-0 and +0 equal, as the keys make them), then the indices.
inline bool splitBefore(const Point& a, const Point& b, int dim) {
    return a.p[dim] < b.p[dim] || (a.p[dim] == b.p[dim] && a.index < b.index);
}

// The coordinate a key was made from.
inline float keyCoordinate(uint64_t key) {
    uint32_t u = uint32_t(key >> 32);
    u = (u & 0x80000000u) ? (u & 0x7fffffffu) : ~u;
    float v;
    std::memcpy(&v, &u, sizeof v);
    return v;
}

// The least and greatest of each coordinate over `count` points (count > 0): the first four
// coordinates side by side, the fifth alone. (Features are never negative zero, so which of two
// equal zeros is kept does not matter.)
void pointBounds(const Point* points, int count, float* lo, float* hi) {
    static_assert(kFeatureDims == 5, "four coordinates side by side and one alone");
    __m128 lo4 = _mm_loadu_ps(points[0].p), hi4 = lo4;
    float lo5 = points[0].p[4], hi5 = lo5;
    for (int i = 1; i < count; ++i) {
        const __m128 v = _mm_loadu_ps(points[i].p);
        lo4 = _mm_min_ps(lo4, v);
        hi4 = _mm_max_ps(hi4, v);
        lo5 = std::min(lo5, points[i].p[4]);
        hi5 = std::max(hi5, points[i].p[4]);
    }
    _mm_storeu_ps(lo, lo4);
    _mm_storeu_ps(hi, hi4);
    lo[4] = lo5;
    hi[4] = hi5;
}

}  // namespace

std::vector<float> pixelFeatures(const FlowImage& image, const std::vector<int>& pixels,
                                 float spatialWeight) {
    const int refW = image.referenceWidth > 0 ? image.referenceWidth : image.width;
    const int refH = image.referenceHeight > 0 ? image.referenceHeight : image.height;
    const float sx = spatialWeight / static_cast<float>(refW);
    const float sy = spatialWeight / static_cast<float>(refH);
    std::vector<float> f(pixels.size() * kFeatureDims);
    const int64_t count = static_cast<int64_t>(pixels.size());
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < count; ++i) {
        const int p = pixels[size_t(i)];
        const int x = p % image.width, y = p / image.width;
        float* o = f.data() + i * kFeatureDims;
        for (int c = 0; c < 3; ++c) o[c] = image.colour(c, p) * (1.0f / 255.0f);
        o[3] = x * sx;
        o[4] = y * sy;
    }
    return f;
}

KdTree::KdTree() = default;
KdTree::~KdTree() = default;
KdTree::KdTree(KdTree&&) noexcept = default;
KdTree& KdTree::operator=(KdTree&&) noexcept = default;

void KdTree::build(const float* points, int count, const std::vector<int>& ids, Split split) {
    count = std::max(count, 0);
    nodes_.reset();
    count_ = count;
    ids_ = ids;
    points_.resize(size_t(count));
#pragma omp parallel for schedule(static)
    for (int i = 0; i < count; ++i) {
        std::copy(points + int64_t(i) * kFeatureDims, points + int64_t(i + 1) * kFeatureDims,
                  points_[size_t(i)].p);
        points_[size_t(i)].index = i;
    }
    if (count == 0) return;
    // The ranges follow from the count alone: a node of more than kLeafSize points has two
    // children, its first half and the rest, so the nodes are counted and linked before any
    // point is looked at. A level holds ranges of two sizes at most: few node counts are kept.
    std::vector<std::pair<int, int>> known;  // a range's size, its subtree's nodes
    auto nodesOf = [&](auto&& self, int size) -> int {
        if (size <= kLeafSize) return 1;
        for (const auto& [s, nodes] : known)
            if (s == size) return nodes;
        const int total = 1 + self(self, size / 2) + self(self, size - size / 2);
        known.emplace_back(size, total);
        return total;
    };
    const int nodeCount = nodesOf(nodesOf, count);
    nodes_ = std::make_unique<Node[]>(size_t(nodeCount));
    nodes_[0].last = count;
    for (int i = 0; i < nodeCount; ++i) {
        Node& n = nodes_[size_t(i)];
        if (n.last - n.first <= kLeafSize) continue;
        const int mid = (n.first + n.last) / 2;
        n.left = i + 1;
        n.right = i + 1 + nodesOf(nodesOf, mid - n.first);
        nodes_[size_t(n.left)].first = n.first;
        nodes_[size_t(n.left)].last = mid;
        nodes_[size_t(n.right)].first = mid;
        nodes_[size_t(n.right)].last = n.last;
    }
#pragma omp parallel
#pragma omp single
    settleFrom(0, split == Split::Whole);
}

// Splits `node` and the nodes below it: all of them (whole) or those of kTaskPoints points and
// more. Nothing here throws (a split takes no memory), so nothing has to be carried out of the
// tasks.
void KdTree::settleFrom(int node, bool whole) const noexcept {
    const int size = nodes_[size_t(node)].last - nodes_[size_t(node)].first;
    if (!whole && size < kTaskPoints) return;
    if (settle(node) != kSplit) return;
    const int children[2] = {nodes_[size_t(node)].left, nodes_[size_t(node)].right};
    if (size < 2 * kTaskPoints) {
        settleFrom(children[0], whole);
        settleFrom(children[1], whole);
        return;
    }
    for (int side = 0; side < 2; ++side) {
#pragma omp task shared(children) firstprivate(side)
        settleFrom(children[side], whole);
    }
#pragma omp taskwait
}

// The node's state once it is split or a leaf: this thread splits it when nobody has, or waits
// while another thread does.
unsigned char KdTree::settle(int node) const noexcept {
    std::atomic<unsigned char>& state = nodes_[size_t(node)].state;
    unsigned char s = state.load(std::memory_order_acquire);
    while (s == kUnsplit || s == kBusy) {
        if (s == kBusy) {
            std::this_thread::yield();
            s = state.load(std::memory_order_acquire);
            continue;
        }
        if (!state.compare_exchange_strong(s, kBusy, std::memory_order_acquire)) continue;
        s = splitNode(node);
        state.store(s, std::memory_order_release);
    }
    return s;
}

// Splits a node at the median of the coordinate along which its points spread most (ties in
// that coordinate broken by the point's index, so that the halves are the same sets whatever
// order the range came in; splitKey orders them so). A node of at most kLeafSize points, or
// whose points are all equal, is a leaf, its points put in the order of their indices, so that
// the order the selections left them in does not matter.
unsigned char KdTree::splitNode(int node) const noexcept {
    Node& n = nodes_[size_t(node)];
    Point* e = points_.data();
    float lo[kFeatureDims], hi[kFeatureDims];
    pointBounds(e + n.first, n.last - n.first, lo, hi);
    int dim = 0;
    for (int d = 1; d < kFeatureDims; ++d)
        if (hi[d] - lo[d] > hi[dim] - lo[dim]) dim = d;
    if (n.last - n.first <= kLeafSize || hi[dim] <= lo[dim]) {
        std::sort(e + n.first, e + n.last,
                  [](const Point& a, const Point& b) { return a.index < b.index; });
        return kLeaf;
    }
    const int count = n.last - n.first, half = count / 2;
    uint64_t median;
    constexpr int kOnStack = 256;
    if (count > kOnStack) {
        // A large node is selected in place, with no room taken beside the tree.
        std::nth_element(e + n.first, e + n.first + half, e + n.last,
                         [dim](const Point& a, const Point& b) { return splitBefore(a, b, dim); });
        median = splitKey(e[n.first + half], dim);
    } else {
        // The many small ones: the keys selected and the points partitioned through a copy, both
        // on the stack.
        uint64_t keys[kOnStack];
        Point copy[kOnStack];
        for (int i = 0; i < count; ++i) keys[i] = splitKey(e[n.first + i], dim);
        std::nth_element(keys, keys + half, keys + count);
        median = keys[half];
        std::copy(e + n.first, e + n.last, copy);
        int below = n.first, above = n.first + half;
        for (int i = 0; i < count; ++i) {
            const int right = splitKey(copy[i], dim) >= median;
            e[right ? above : below] = copy[i];
            above += right;
            below += 1 - right;
        }
    }
    n.dim = static_cast<unsigned char>(dim);
    n.split = keyCoordinate(median);
    return kSplit;
}

int KdTree::nearest(const float* query, int k, int skip, int* names, float* dist2,
                    int maxChecks, SearchHint* hint) const {
    k = std::clamp(k, 0, kMaxNeighbours);
    if (k == 0 || count_ == 0) return 0;
    auto nameOf = [this](const Point& x) { return ids_.empty() ? x.index : ids_[size_t(x.index)]; };
    auto stateOf = [this](int node) {
        const unsigned char s = nodes_[size_t(node)].state.load(std::memory_order_acquire);
        return s == kSplit || s == kLeaf ? s : settle(node);
    };
    Best best;
    best.k = k;
    // The skipped point is looked for only among those near enough to be taken: most are not.
    auto compare = [&](int i) {
        const Point& x = points_[size_t(i)];
        const float* p = x.p;
        float d = 0.0f;
        for (int c = 0; c < kFeatureDims; ++c) {
            const float t = p[c] - query[c];
            d += t * t;
        }
        if (d >= best.worst() || (skip >= 0 && nameOf(x) == skip)) return;
        best.offer(i, d);
    };
    int checked = 0;
    if (hint) {
        for (int j = 0; j < hint->count; ++j) compare(hint->slots[j]);
        checked = hint->count;
    }
    // Best bin first: the pending subtree whose splitting planes lie nearest is entered next,
    // so the k nearest are usually found early and the rest pruned. Within a subtree the walk
    // goes down the near side, leaving the far side pending. With maxChecks > 0 the search
    // stops once that many points were compared and k are held (approximate).
    struct Pending {
        float planeDist;
        int node;
        bool operator<(const Pending& o) const { return planeDist > o.planeDist; }
    };
    Pending heap[kHeapSize];
    int heapSize = 0;
    auto push = [&](Pending e) {
        if (heapSize == kHeapSize) {
            // Full: drop the farthest pending entry if the new one is nearer (rare, bounded).
            int far = 0;
            for (int i = 1; i < heapSize; ++i)
                if (heap[i].planeDist > heap[far].planeDist) far = i;
            if (heap[far].planeDist <= e.planeDist) return;
            heap[far] = heap[--heapSize];
            std::make_heap(heap, heap + heapSize);
        }
        heap[heapSize++] = e;
        std::push_heap(heap, heap + heapSize);
    };
    push({0.0f, 0});
    while (heapSize > 0) {
        std::pop_heap(heap, heap + heapSize);
        const Pending e = heap[--heapSize];
        if (e.planeDist >= best.worst()) break;  // every other pending entry is farther
        if (maxChecks > 0 && checked >= maxChecks && best.held == k) break;
        int node = e.node;
        float planeDist = e.planeDist;
        while (stateOf(node) == kSplit) {
            const Node& n = nodes_[size_t(node)];
            const float diff = query[n.dim] - n.split;
            const float farDist = std::max(planeDist, diff * diff);
            if (farDist < best.worst()) push({farDist, diff < 0.0f ? n.right : n.left});
            node = diff < 0.0f ? n.left : n.right;
        }
        const Node& leaf = nodes_[size_t(node)];
        for (int i = leaf.first; i < leaf.last; ++i) compare(i);
        checked += leaf.last - leaf.first;
    }
    for (int i = 0; i < best.held; ++i) {
        names[i] = nameOf(points_[size_t(best.slots[i])]);
        if (dist2) dist2[i] = best.dist[i];
    }
    if (hint) {
        hint->count = best.held;
        std::copy(best.slots, best.slots + best.held, hint->slots);
    }
    return best.held;
}

std::vector<int> nearestAll(const KdTree& tree, const float* queries, int count, int k,
                            const std::vector<int>& selfNames, int maxChecks, const Poll& poll) {
    std::vector<int> out(size_t(count) * size_t(k), -1);
    forSlices(count, poll, [&](int first, int last) {
        SearchHint hint;
        for (int i = first; i < last; ++i)
            tree.nearest(queries + int64_t(i) * kFeatureDims, k,
                         selfNames.empty() ? -1 : selfNames[size_t(i)],
                         out.data() + int64_t(i) * k, nullptr, maxChecks, &hint);
    });
    return out;
}

}  // namespace qx::flows
