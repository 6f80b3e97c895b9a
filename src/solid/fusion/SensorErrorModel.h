// How much a depth measurement is trusted, and how wide the band of the signed distance is.
#ifndef VELMORA_SOLID_FUSION_SENSORERRORMODEL_H
#define VELMORA_SOLID_FUSION_SENSORERRORMODEL_H

#include "solid/volume/Types.h"

namespace Solid {

class SensorErrorModel {
public:
    virtual ~SensorErrorModel() = default;
    // Weight of a measurement taken at camera-space point `p` (metres).
    virtual float getFusionWeight(const Vec3& p) const = 0;
    // Half width, metres, of the truncation band at camera-space point `p`.
    virtual float getIntegrationRamp(const Vec3& p) const = 0;
    // True, with the band in `ramp`, when the band is the same at every point, so that a caller
    // may ask once per frame instead of once per point.
    virtual bool constantIntegrationRamp(float& /*ramp*/) const { return false; }
};

// The same band and weight everywhere: the configured truncation.
class ConstantErrorModel : public SensorErrorModel {
public:
    explicit ConstantErrorModel(float ramp) : mRamp(ramp) {}
    float getFusionWeight(const Vec3& /*p*/) const override { return 1.0f; }
    float getIntegrationRamp(const Vec3& /*p*/) const override { return mRamp; }
    bool constantIntegrationRamp(float& ramp) const override {
        ramp = mRamp;
        return true;
    }

private:
    float mRamp;
};

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_SENSORERRORMODEL_H
