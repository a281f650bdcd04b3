#pragma once
// Morphing: deforms a moving mesh onto a target that lies close to it, keeping its
// topology (MWrapperOperatorBaseMorph), with the per-vertex correspondence it runs on.
#include "zor/morph/morphing_correspondence.h"
#include "zor/morph/vertex_ring_iterator.h"
#include "zor/morph/wrapper_operator_base_morph.h"
