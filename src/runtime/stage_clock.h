// Where a tri-map job's time goes, stage by stage, for the benchmarks: each stage's wall time is
// added to process-wide totals (under a lock; a stage costs two clock reads). Jobs running at
// once add to the same totals. What a workflow does around the job (the undecided pixels' box,
// the cut to it, the copies out) is the job's time less these.
#pragma once

namespace qx {

enum class Stage {
    Reduce,     // a reduced run's halving of the colour and the tri-map
    Maps,       // the known and core maps of the tri-map
    Laplacian,  // the window affinities, as (row, column, value) triples
    Windows,    // the windows' ordinals by centre, for the rows to gather their triples
    Assembly,   // the triples merged, row by row, into the system in compressed rows
    Solver,     // the direct solve: analysis, factorisation, solve (split in DirectSolveTotals)
    Output,     // alpha from the solution, sharpening, bilateral clean-up, levels
    Enlarge,    // a reduced run's guided doubling back, border repair, hard-value rule
    Count
};

const char* stageName(Stage s);

struct StageTotals {
    double seconds[int(Stage::Count)] = {};
};
StageTotals stageTotals();
void resetStageTotals();

// Adds the wall time of its life to its stage.
class StageClock {
public:
    explicit StageClock(Stage s);
    ~StageClock();
    StageClock(const StageClock&) = delete;
    StageClock& operator=(const StageClock&) = delete;

private:
    Stage stage_;
    double start_;
};

}  // namespace qx
