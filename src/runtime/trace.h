// Optional developer trace: a text log and numbered image dumps in a directory the host names.
// Off by default; every operation costs one test of the mask when it is off.
#pragma once

namespace qx {

// Sets the mask (bit 0 log, bit 1 dumps) and, when dir is not null, the directory; rebuilds
// the log path "<dir>/qxtrace_log.txt" and logs both settings. Returns what the last log entry
// returned.
int setTrace(unsigned mask, const char* dir);
unsigned isTrace();

// All return 1 when they wrote something, 0 otherwise.
int traceMsg(const char* label, const char* text);
int traceInt(const char* label, int value);
int tracePtr(const char* label, unsigned long value);
// depthKind 1: 8-bit samples; 2 (PPM) or anything but 1 (PGM): 16-bit samples of the 0..32768
// range, pixelStep then counted in samples. Fails with Fault::TraceBuffer if the row buffer fails.
int tracePPM(const void* pixels, int width, int height, int rowStep, int pixelStep,
             int swapChannels, int depthKind);
int tracePGM(const void* pixels, int width, int height, int rowStep, int pixelStep,
             int depthKind);

// The log path and the running number, for tests.
const char* traceFilePath();
int traceCounterValue();

}  // namespace qx
