// Resident memory of this process, for the demo's and the benchmarks' reports.
#pragma once

namespace qxmatte {

// Starts a new measurement: gives freed heap back to the system and resets the peak, so that
// the next peakResidentMB() reports what happened since.
void resetPeakResident();
// Peak and current resident memory in MB (from /proc/self/status).
double peakResidentMB();
double residentMB();

}  // namespace qxmatte
