// The least-squares separation of one block of pixels into foreground and background colours.
#pragma once

#include "solver/sparse.h"
#include "image/img.h"

namespace qx {

// Solves, for each colour plane by itself, the least-squares system of the compositing equation
// I = a*F + (1 - a)*B over the block, with data terms that tie F to I where alpha is nearly 1 and
// B to I where it is nearly 0, and smoothness terms on F and B weighted by the square root of
// alpha's change between neighbours (horizontal, vertical and both diagonals).
//
// unused:          not read (callers pass a block of null pointers).
// planes:          three colour planes of the block, 0..255; on return their pixels with
//                  1 <= x <= w-2 and 1 <= y <= h-2 hold F (wantBackground 0) or B (otherwise),
//                  clamped to 0..255 and truncated; the outermost ring keeps its input.
// alpha:           the block's alpha, 0..255, same size as the planes.
//
// Returns 0, or 10 when a sparse product fails (the planes are then left as far as written).
// A block narrower or lower than 3 pixels has no interior: nothing is solved or written.
// Throws 11 when the system is too large for the transpose (11*w*h rows must stay below
// 10,000,000) and the direct solver's 121, 122, 123 after printing the phase's message
// ("\nERROR during symbolic factorization: %d", ... numerical factorization ..., ... solution
// ...) with that code on standard output.
int solveForegroundBackground(void* unused, IMG<unsigned char, 1>* const planes[3],
                              int wantBackground, const IMG<unsigned char, 1>& alpha);

// The in-line solve of the normal equations: the upper triangle `u` (one-based, diagonal first)
// with nrhs right sides of u.rows values each, one after the other in b, solutions into x in the
// same layout (b is left alone); each solution is the same as when its right side is solved
// alone. A failed phase prints its message with the solver's code on standard output
// ("\nERROR during symbolic factorization: %d" for 121, "\nERROR during numerical
// factorization: %d" for 122, "\nERROR during solution: %d" for 123) and throws that code on.
void solveInLine(const SparseCsr& u, float* b, float* x, int nrhs = 1);

}  // namespace qx
