// Conjugate gradient over the one-based upper-triangle layout of solver/sparse.h.
//
// Both solvers take x as the first guess and leave the result in it. They stop when the residual
// norm, relative to the norm of the first residual b - A*x0, is at or below `tolerance`, or at
// the iteration limit: min(n, maxIterations) for cgSolver, maxIterations as passed for
// cgSolver_jacobi. Not converging isn't an error; x holds what was reached.
//
// Result: the number of iterations done (0 when x0 already solves the system or maxIterations is
// 0), or -1 on an interface error: n < 1, a null pointer, a malformed structure, a negative
// limit, a negative or NaN tolerance, or no memory for the work structure. tmp holds 4*n doubles
// of scratch; its contents on return carry no meaning.
//
// The product with the symmetric matrix runs in parallel over rows and gives the same bits
// whatever the number of threads; so do the dot products. A search direction with no positive
// curvature (p'Ap <= 0, possible only on a singular or indefinite matrix) ends the run at the
// iteration before it rather than dividing by it.
#pragma once

namespace qx {

int cgSolver(int n, const double* a, const int* ia, const int* ja, const double* b, double* x,
             double* tmp, int maxIterations, double tolerance);

// Preconditioned by the diagonal (a row whose diagonal is zero is left unscaled). Kicks the
// progress (runtime/progress.h) after every 21st iteration.
int cgSolver_jacobi(int n, const double* a, const int* ia, const int* ja, const double* b,
                    double* x, double* tmp, int maxIterations, double tolerance);

}  // namespace qx
