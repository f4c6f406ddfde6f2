// The algebra that the multiple fits share.
#pragma once

#include <Eigen/Dense>

// Solves (X^T W X) b = X^T W y, W being the diagonal of w, or one where w is empty. The right-hand side is a
// vector on purpose: substitution then skips what is 0, and a column of zeros gets the coefficient 0 where a
// matrix form divides 0 by 0.
Eigen::VectorXd normal_equations_solve(const Eigen::MatrixXd &x, const Eigen::VectorXd &y,
                                       const Eigen::VectorXd &w);

// 1 - SSres / SStot of that fit; the total is taken round the plain mean. NaN without samples.
double normal_equations_r(const Eigen::MatrixXd &x, const Eigen::VectorXd &y, const Eigen::VectorXd &w,
                          const Eigen::VectorXd &b);
