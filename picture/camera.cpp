#include "picture/camera.h"

#include <cmath>
#include <cstddef>

namespace Tavrin::SplatPicture {
namespace {

Point difference(const Point& a, const Point& b) {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}

double dot(const Point& a, const Point& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

Point cross(const Point& a, const Point& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

Point normalised(const Point& a) {
    const double length = std::sqrt(dot(a, a));
    return {a[0] / length, a[1] / length, a[2] / length};
}

} // namespace

PerspectiveCamera::PerspectiveCamera(const Point& eye, const Point& target, const Point& up,
                                     double fieldOfView, int width, int height)
    : eye_(eye), right_(), down_(), forward_(normalised(difference(target, eye))), focal_(0.0),
      centreX_(0.5 * width), centreY_(0.5 * height) {
    constexpr double halfDegree = 3.14159265358979323846 / 360.0;
    right_ = normalised(cross(forward_, up));
    down_ = cross(forward_, right_);
    focal_ = centreX_ / std::tan(fieldOfView * halfDegree);
}

bool PerspectiveCamera::see(const Point& point, View& view) const {
    constexpr double nearest = 0.2; // scene units in front of the eye
    // The perspective over a splat is replaced by its derivative at the centre. Far outside the picture this
    // approximation fails and would smear splats across the picture.
    constexpr double margin = 1.3;
    const Point ray = difference(point, eye_);
    const double depth = dot(ray, forward_);
    if (!(depth >= nearest)) {
        return false;
    }
    const double tx = dot(ray, right_) / depth;
    const double ty = dot(ray, down_) / depth;
    if (std::fabs(tx) * focal_ > margin * centreX_ || std::fabs(ty) * focal_ > margin * centreY_) {
        return false;
    }
    const double scale = focal_ / depth;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        view.right[axis] = scale * (right_[axis] - tx * forward_[axis]);
        view.down[axis] = scale * (down_[axis] - ty * forward_[axis]);
    }
    view.x = centreX_ + focal_ * tx;
    view.y = centreY_ + focal_ * ty;
    view.depth = depth;
    view.direction = normalised(ray);
    return true;
}

bool DownwardCamera::see(const Point& point, View& view) const {
    view.x = (point[0] - left_) / pixel_;
    view.y = (top_ - point[1]) / pixel_;
    view.depth = -point[2];
    view.right = {1.0 / pixel_, 0.0, 0.0};
    view.down = {0.0, -1.0 / pixel_, 0.0};
    view.direction = {0.0, 0.0, -1.0};
    return true;
}

std::array<double, 15> harmonics(const Point& direction) {
    const auto& [x, y, z] = direction;
    const double xx = x * x;
    const double yy = y * y;
    const double zz = z * z;
    return {-0.4886025119 * y,
            0.4886025119 * z,
            -0.4886025119 * x,
            1.0925484306 * x * y,
            -1.0925484306 * y * z,
            0.3153915653 * (2.0 * zz - xx - yy),
            -1.0925484306 * x * z,
            0.5462742153 * (xx - yy),
            -0.5900435899 * y * (3.0 * xx - yy),
            2.8906114426 * x * y * z,
            -0.4570457995 * y * (4.0 * zz - xx - yy),
            0.3731763326 * z * (2.0 * zz - 3.0 * xx - 3.0 * yy),
            -0.4570457995 * x * (4.0 * zz - xx - yy),
            1.4453057213 * z * (xx - yy),
            -0.5900435899 * x * (xx - 3.0 * yy)};
}

} // namespace Tavrin::SplatPicture
