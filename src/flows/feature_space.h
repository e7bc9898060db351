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
// order); the halves of large ranges are built as tasks on all threads, into the same tree
// whatever their number.
// Queries only read the tree, so any number of threads may query one tree at once.
#pragma once

#include <cstdint>
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
    // Copies `count` points of kFeatureDims floats; ids[i] is the name nearest() reports for
    // point i (its index when ids is empty).
    void build(const float* points, int count, const std::vector<int>& ids = {});
    int size() const { return static_cast<int>(ids_.size()); }

    // The k nearest points to `query` (fewer when the tree is smaller), nearest first, leaving
    // out the point named `skip` (-1: none). Writes names and squared distances; returns how
    // many were found. With maxChecks > 0 the search is approximate: it ends once about that
    // many points were compared (the hint's first, then the nearest leaves). With a hint the
    // search compares its points first and leaves its own result in it.
    int nearest(const float* query, int k, int skip, int* names, float* dist2,
                int maxChecks = 0, SearchHint* hint = nullptr) const;

private:
    struct Node {
        int first = 0, last = 0;     // leaf: the points [first, last) of pts_
        int left = -1, right = -1;   // children (-1 in a leaf)
        int dim = 0;
        float split = 0.0f;
    };
    std::vector<float> pts_;  // points in leaf order
    std::vector<int> ids_;    // their names
    std::vector<Node> nodes_;
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
