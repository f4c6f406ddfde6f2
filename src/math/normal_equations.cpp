#include "math/normal_equations.h"

using Eigen::MatrixXd;
using Eigen::VectorXd;

VectorXd normal_equations_solve(const MatrixXd &x, const VectorXd &y, const VectorXd &w)
{
    const MatrixXd xtw = w.size() ? MatrixXd(x.transpose() * w.asDiagonal()) : MatrixXd(x.transpose());
    const MatrixXd a = xtw * x;
    const VectorXd rhs = xtw * y;
    return a.partialPivLu().solve(rhs);
}

double normal_equations_r(const MatrixXd &x, const VectorXd &y, const VectorXd &w, const VectorXd &b)
{
    const VectorXd res = y - x * b;
    const VectorXd dev = y.array() - y.sum() / static_cast<double>(y.size());
    if (!w.size())
        return 1.0 - res.squaredNorm() / dev.squaredNorm();
    return 1.0 - res.dot(w.cwiseProduct(res)) / dev.dot(w.cwiseProduct(dev));
}
