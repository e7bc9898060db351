// The feature space in which the non-local flows look for neighbours, and an exact K-nearest
// search in it.
//
// A pixel's feature is its colour on 0..1 and its place, x / referenceWidth and
// y / referenceHeight, each place coordinate multiplied by a spatial weight: a small weight lets
// a pixel find partners of its colour far away in the image, a large one keeps them near. Five
// floats a point.
//
// KdTree holds a copy of its points, split at the median of the widest coordinate down to small
// leaves; nearest() is exact (the k points of least squared Euclidean distance, nearest first)
// or, given a budget of points to compare, approximate. A search may start from the points the
// previous search found (a SearchHint): queries in raster order are mostly near one another, so
// those points bound the distances to beat from the start and a budgeted search spends its
// budget near the answer. The points move with the splits (each split reads its range in
// order), and a leaf holds its points in the order of their indices, so the tree is one and the
// same whatever order its nodes were split in: the halves of large ranges are split as tasks on
// all threads, and a tree built on demand splits its small nodes only when a search first
// enters them (a tree over many points searched by few queries splits only the parts they
// reach).
// Any number of threads may query one tree at once (a node split on demand is split by one of
// them while the others wait for it).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "flows/flow_image.h"

namespace qx::flows {

constexpr int kFeatureDims = 5;

// The features of the listed pixels (indices into the box, raster order), five floats each.
std::vector<float> pixelFeatures(const FlowImage& image, const std::vector<int>& pixels,
                                 float spatialWeight);

constexpr int kMaxNeighbours = 64;

// The points a search found, by their place in the tree, for the next search to start from
// (empty: no start).
struct SearchHint {
    int count = 0;
    int slots[kMaxNeighbours];
};

class KdTree {
public:
    // Whole: every node is split before build returns. OnDemand: the nodes of many points are,
    // the rest when a search first enters them.
    enum class Split { Whole, OnDemand };

    KdTree();
    ~KdTree();
    KdTree(KdTree&&) noexcept;
    KdTree& operator=(KdTree&&) noexcept;

    // Copies `count` points of kFeatureDims floats; ids[i] is the name nearest() reports for
    // point i (its index when ids is empty). Memory failures are thrown (std::bad_alloc).
    void build(const float* points, int count, const std::vector<int>& ids = {},
               Split split = Split::Whole);
    int size() const { return count_; }

    // The k nearest points to `query` (fewer when the tree is smaller), nearest first, leaving
    // out the point named `skip` (-1: none). Writes names and squared distances; returns how
    // many were found. With maxChecks > 0 the search is approximate: it ends once about that
    // many points were compared (the hint's first, then the nearest leaves). With a hint the
    // search compares its points first and leaves its own result in it. In a tree built on
    // demand it may split nodes (taking no memory).
    int nearest(const float* query, int k, int skip, int* names, float* dist2,
                int maxChecks = 0, SearchHint* hint = nullptr) const;

    struct Point {
        float p[kFeatureDims];
        int index;  // in the caller's array
    };

private:
    // The nodes in preorder: a node's left child follows it. The ranges and links follow from the
    // count alone and are set when the tree is made; the split when the node is split.
    struct Node {
        int first = 0, last = 0;
        int left = -1, right = -1;  // -1: a node of kLeafSize points or fewer
        float split = 0.0f;
        unsigned char dim = 0;
        std::atomic<unsigned char> state{0};  // NodeState (feature_space.cpp)
    };
    unsigned char settle(int node) const noexcept;
    unsigned char splitNode(int node) const noexcept;
    void settleFrom(int node, bool whole) const noexcept;

    int count_ = 0;
    mutable std::vector<Point> points_;  // in leaf order once every node above is split
    std::vector<int> ids_;               // the caller's names by index (empty: the index)
    std::unique_ptr<Node[]> nodes_;
};

// For each query point (kFeatureDims floats each), the names of its k nearest points in the
// tree, k a query (a short result is padded with -1). With excludeSelf, query i leaves out the
// point named selfNames[i]. Queries run in parallel, each starting from the previous query's
// points within its run (forSlices); the result does not depend on the number of threads. poll
// is called between slices of the queries.
std::vector<int> nearestAll(const KdTree& tree, const float* queries, int count, int k,
                            const std::vector<int>& selfNames = {}, int maxChecks = 0,
                            const Poll& poll = {});

}  // namespace qx::flows
