#pragma once
// The mesh model in one include: the mesh and its parts, masks, events, guards,
// selections, handles and builders.
#include "zor/model/data_mask.h"
#include "zor/model/math_utility.h"
#include "zor/model/mesh_builder.h"
#include "zor/model/progress.h"
#include "zor/model/registered.h"
#include "zor/model/stl_base.h"
#include "zor/model/stl_dependencies.h"
#include "zor/model/stl_elements.h"
#include "zor/model/stl_events.h"
#include "zor/model/stl_guards.h"
#include "zor/model/stl_handles.h"
#include "zor/model/stl_item.h"
#include "zor/model/stl_iterators.h"
#include "zor/model/stl_vector_mask_points.h"
#include "zor/model/transform.h"
#include "zor/model/unit.h"
