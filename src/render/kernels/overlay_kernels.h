// The fast conversion of a bitmap into the planes of an overlay, for the tables of kernels.
#pragma once

#include "render/kernels/drawing_kernels.h"

namespace kernels {

// DrawingKernels::convertPixels and convertCoverage for every processor, and for those with AVX2.
void ConvertPixels(const ArgbRows& bitmap, const OverlayPlanes& to, const PlaneBounds& blocks);
void ConvertCoverage(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                     const PlaneBounds& blocks);
void ConvertPixelsAvx2(const ArgbRows& bitmap, const OverlayPlanes& to, const PlaneBounds& blocks);
void ConvertCoverageAvx2(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                         const PlaneBounds& blocks);

}  // namespace kernels
