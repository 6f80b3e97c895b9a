#include "math/MathDebugging.h"

#include "common/Logger.h"

namespace AR {
namespace Math {

bool isGoodNum(float value, bool log) {
    const float magnitude = std::fabs(value);
    const bool good = !std::isnan(value) && magnitude <= kGoodNumMax &&
                      (magnitude == 0.0f || magnitude >= kGoodNumMin);
    if (!good && log) {
        AR_LOG_ERROR("Bad float: %a is nan or inf or denormal or uninitialised",
                     static_cast<double>(value));
    }
    return good;
}

}  // namespace Math
}  // namespace AR
