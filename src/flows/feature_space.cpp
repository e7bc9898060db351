#include "flows/feature_space.h"

#include <algorithm>
#include <numeric>

namespace qx::flows {
namespace {

constexpr int kLeafSize = 10;
constexpr int kHeapSize = 512;
// The tree's top is split on the calling thread down to ranges of about this many points'
// worth of work each, which are built on all threads.
constexpr int kSubtrees = 64;

// The k best so far, nearest first, by place in the tree; `worst` is the k-th distance once k
// are held.
struct Best {
    int k = 0, held = 0;
    int slots[kMaxNeighbours];
    float dist[kMaxNeighbours];
    float worst() const { return held < k ? 3.4e38f : dist[k - 1]; }
    void offer(int slot, float d) {
        if (held == k && d >= dist[k - 1]) return;
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
    }
};

struct Range {
    int node, first, last;
};

// Splits the nodes below `top` (whose points are order[first, last)) down to leaves of
// kLeafSize, or, with stopAt > kLeafSize, down to ranges of at most stopAt points, which are
// left as leaves and listed in `rest`. A node is split at the median of the coordinate along
// which its points spread most; a node whose points are all equal stays a leaf.
template <class Node>
void split(const float* points, std::vector<int>& order, std::vector<Node>& nodes, Range top,
           int stopAt, std::vector<Range>* rest) {
    std::vector<Range> stack{top};
    while (!stack.empty()) {
        const Range t = stack.back();
        stack.pop_back();
        if (t.last - t.first <= kLeafSize) continue;
        if (t.last - t.first <= stopAt) {
            rest->push_back(t);
            continue;
        }
        float lo[kFeatureDims], hi[kFeatureDims];
        std::fill(lo, lo + kFeatureDims, 3.4e38f);
        std::fill(hi, hi + kFeatureDims, -3.4e38f);
        for (int i = t.first; i < t.last; ++i) {
            const float* p = points + int64_t(order[size_t(i)]) * kFeatureDims;
            for (int d = 0; d < kFeatureDims; ++d) {
                lo[d] = std::min(lo[d], p[d]);
                hi[d] = std::max(hi[d], p[d]);
            }
        }
        int dim = 0;
        for (int d = 1; d < kFeatureDims; ++d)
            if (hi[d] - lo[d] > hi[dim] - lo[dim]) dim = d;
        if (hi[dim] <= lo[dim]) continue;  // all points equal: one leaf
        const int mid = (t.first + t.last) / 2;
        std::nth_element(order.begin() + t.first, order.begin() + mid, order.begin() + t.last,
                         [&](int a, int b) {
                             const float va = points[int64_t(a) * kFeatureDims + dim];
                             const float vb = points[int64_t(b) * kFeatureDims + dim];
                             return va < vb || (va == vb && a < b);
                         });
        const int left = static_cast<int>(nodes.size());
        nodes.push_back({t.first, mid, -1, -1, 0, 0.0f});
        nodes.push_back({mid, t.last, -1, -1, 0, 0.0f});
        Node& n = nodes[size_t(t.node)];
        n.left = left;
        n.right = left + 1;
        n.dim = dim;
        n.split = points[int64_t(order[size_t(mid)]) * kFeatureDims + dim];
        stack.push_back({left, t.first, mid});
        stack.push_back({left + 1, mid, t.last});
    }
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

void KdTree::build(const float* points, int count, const std::vector<int>& ids) {
    nodes_.clear();
    std::vector<int> order(static_cast<size_t>(count));
    std::iota(order.begin(), order.end(), 0);
    if (count > 0) {
        // The top here, then each range left below it as a tree of its own on any thread, its
        // nodes appended in the ranges' order: the tree the whole split on one thread makes, in
        // another node order.
        nodes_.push_back({0, count, -1, -1, 0, 0.0f});
        std::vector<Range> below;
        split(points, order, nodes_, {0, 0, count}, std::max(kLeafSize, count / kSubtrees), &below);
        std::vector<std::vector<Node>> subtrees(below.size());
#pragma omp parallel for schedule(dynamic, 1)
        for (size_t s = 0; s < below.size(); ++s) {
            subtrees[s].push_back({below[s].first, below[s].last, -1, -1, 0, 0.0f});
            split(points, order, subtrees[s], {0, below[s].first, below[s].last}, 0, nullptr);
        }
        for (size_t s = 0; s < below.size(); ++s) {
            // The subtree's root takes its range's node; its other nodes follow the tree's.
            const int root = below[s].node;
            const int base = static_cast<int>(nodes_.size()) - 1;
            auto place = [&](int j) { return j < 0 ? -1 : j == 0 ? root : base + j; };
            for (size_t j = 0; j < subtrees[s].size(); ++j) {
                Node n = subtrees[s][j];
                n.left = place(n.left);
                n.right = place(n.right);
                if (j == 0) nodes_[size_t(root)] = n;
                else nodes_.push_back(n);
            }
        }
    }
    pts_.resize(size_t(count) * kFeatureDims);
    ids_.resize(size_t(count));
#pragma omp parallel for schedule(static)
    for (int i = 0; i < count; ++i) {
        const int src = order[size_t(i)];
        std::copy(points + int64_t(src) * kFeatureDims, points + int64_t(src + 1) * kFeatureDims,
                  pts_.begin() + int64_t(i) * kFeatureDims);
        ids_[size_t(i)] = ids.empty() ? src : ids[size_t(src)];
    }
}

int KdTree::nearest(const float* query, int k, int skip, int* names, float* dist2,
                    int maxChecks, SearchHint* hint) const {
    k = std::clamp(k, 0, kMaxNeighbours);
    if (k == 0 || nodes_.empty()) return 0;
    Best best;
    best.k = k;
    auto compare = [&](int i) {
        if (ids_[size_t(i)] == skip) return;
        const float* p = pts_.data() + int64_t(i) * kFeatureDims;
        float d = 0.0f;
        for (int c = 0; c < kFeatureDims; ++c) {
            const float t = p[c] - query[c];
            d += t * t;
        }
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
        while (nodes_[size_t(node)].left >= 0) {
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
        names[i] = ids_[size_t(best.slots[i])];
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
