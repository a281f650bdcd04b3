#pragma once
// The pair-level calls: what a host application includes for the common case.
//
//   AlignPair   registers a moving mesh onto a fixed one from any placement, finishes on
//               the full meshes and judges the result (pair_registration.h)
//   IcpPair     the multi-start ICP in millimetres (pair_operations.h)
//   MorphPair   the morph, registered first or not, in millimetres (pair_operations.h)
//   SignedDistances, SummariseDeviation
//               where a result deviates from the fixed surface (deviation.h)
//
// Reading and writing mesh files is the module zor/files (zor/files/mesh_files.h).
// Failures from bad input leave as InputError with a one-line message.

#include "zor/model/input_error.h"
#include "zor/pair/align_views.h"
#include "zor/pair/deviation.h"
#include "zor/pair/pair_operations.h"
#include "zor/pair/pair_registration.h"
