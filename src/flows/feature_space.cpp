#include "flows/feature_space.h"

#include <algorithm>
#include <exception>
#include <numeric>

namespace qx::flows {
namespace {

constexpr int kLeafSize = 10;
constexpr int kHeapSize = 512;

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

// A point while the tree is built: its coordinates and its index in the caller's array, moved
// as one so that each split reads its range in order.
struct Entry {
    float p[kFeatureDims];
    int index;
};

// What f throws, kept (nothing when it returns): a failure may not leave an OpenMP task or
// parallel region, so it is carried out and thrown after it.
template <class F>
std::exception_ptr failureOf(F&& f) {
    try {
        f();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

// Points at or above this many split their two halves as tasks of their own (on any thread);
// below it a range is split on the thread that holds it.
constexpr int kTaskPoints = 16384;

// The nodes of the tree over entries [first, last): the root first, then its subtrees'. A
// node is split at the median of the coordinate along which its points spread most (ties in
// that coordinate broken by the point's index, so that the halves are the same sets whatever
// order the range came in); a node of at most kLeafSize points, or whose points are all
// equal, is a leaf.
template <class Node>
std::vector<Node> subtree(Entry* e, int first, int last) {
    std::vector<Node> nodes{{first, last, -1, -1, 0, 0.0f}};
    struct Pending {
        int node, first, last;
    };
    std::vector<Pending> stack{{0, first, last}};
    while (!stack.empty()) {
        const Pending t = stack.back();
        stack.pop_back();
        if (t.last - t.first <= kLeafSize) continue;
        float lo[kFeatureDims], hi[kFeatureDims];
        std::fill(lo, lo + kFeatureDims, 3.4e38f);
        std::fill(hi, hi + kFeatureDims, -3.4e38f);
        for (int i = t.first; i < t.last; ++i)
            for (int d = 0; d < kFeatureDims; ++d) {
                lo[d] = std::min(lo[d], e[i].p[d]);
                hi[d] = std::max(hi[d], e[i].p[d]);
            }
        int dim = 0;
        for (int d = 1; d < kFeatureDims; ++d)
            if (hi[d] - lo[d] > hi[dim] - lo[dim]) dim = d;
        if (hi[dim] <= lo[dim]) continue;  // all points equal: one leaf
        const int mid = (t.first + t.last) / 2;
        std::nth_element(e + t.first, e + mid, e + t.last, [dim](const Entry& a, const Entry& b) {
            return a.p[dim] < b.p[dim] || (a.p[dim] == b.p[dim] && a.index < b.index);
        });
        nodes[size_t(t.node)].dim = dim;
        nodes[size_t(t.node)].split = e[mid].p[dim];
        if (t.last - t.first < kTaskPoints) {
            const int left = static_cast<int>(nodes.size());
            nodes[size_t(t.node)].left = left;
            nodes[size_t(t.node)].right = left + 1;
            nodes.push_back({t.first, mid, -1, -1, 0, 0.0f});
            nodes.push_back({mid, t.last, -1, -1, 0, 0.0f});
            stack.push_back({left, t.first, mid});
            stack.push_back({left + 1, mid, t.last});
            continue;
        }
        // Only the root of a large range gets here (the stack holds small ranges alone): its
        // halves are built as tasks, then appended, left then right, their links moved past
        // the nodes before them.
        std::vector<Node> halves[2];
        std::exception_ptr failed[2];
        const bool apart = t.last - t.first >= 2 * kTaskPoints;
        const int bounds[3] = {t.first, mid, t.last};
        for (int side = 0; side < 2; ++side) {
#pragma omp task shared(halves, failed, bounds) firstprivate(side) if (apart)
            failed[side] = failureOf(
                [&] { halves[side] = subtree<Node>(e, bounds[side], bounds[side + 1]); });
        }
#pragma omp taskwait
        for (const std::exception_ptr& f : failed)
            if (f) std::rethrow_exception(f);
        auto append = [&nodes](const std::vector<Node>& half) {
            const int base = static_cast<int>(nodes.size());
            for (Node m : half) {
                if (m.left >= 0) {
                    m.left += base;
                    m.right += base;
                }
                nodes.push_back(m);
            }
            return base;
        };
        const int left = append(halves[0]);
        const int right = append(halves[1]);
        nodes[size_t(t.node)].left = left;
        nodes[size_t(t.node)].right = right;
    }
    return nodes;
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
    std::vector<Entry> entries(static_cast<size_t>(std::max(count, 0)));
#pragma omp parallel for schedule(static)
    for (int i = 0; i < count; ++i) {
        std::copy(points + int64_t(i) * kFeatureDims, points + int64_t(i + 1) * kFeatureDims,
                  entries[size_t(i)].p);
        entries[size_t(i)].index = i;
    }
    nodes_.clear();
    if (count > 0) {
        // The root's range splits on this thread; halves of kTaskPoints and more are tasks for
        // the team, which gives the same tree on any number of threads.
        std::exception_ptr failed;
#pragma omp parallel
#pragma omp single
        failed = failureOf([&] { nodes_ = subtree<Node>(entries.data(), 0, count); });
        if (failed) std::rethrow_exception(failed);
    }
    pts_.resize(size_t(count) * kFeatureDims);
    ids_.resize(size_t(count));
#pragma omp parallel for schedule(static)
    for (int i = 0; i < count; ++i) {
        const Entry& en = entries[size_t(i)];
        std::copy(en.p, en.p + kFeatureDims, pts_.begin() + int64_t(i) * kFeatureDims);
        ids_[size_t(i)] = ids.empty() ? en.index : ids[size_t(en.index)];
    }
}

int KdTree::nearest(const float* query, int k, int skip, int* names, float* dist2,
                    int maxChecks, SearchHint* hint) const {
    k = std::clamp(k, 0, kMaxNeighbours);
    if (k == 0 || nodes_.empty()) return 0;
    Best best;
    best.k = k;
    // The skipped point is looked for only among those near enough to be taken: most are not.
    auto compare = [&](int i) {
        const float* p = pts_.data() + int64_t(i) * kFeatureDims;
        float d = 0.0f;
        for (int c = 0; c < kFeatureDims; ++c) {
            const float t = p[c] - query[c];
            d += t * t;
        }
        if (d >= best.worst() || (skip >= 0 && ids_[size_t(i)] == skip)) return;
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
