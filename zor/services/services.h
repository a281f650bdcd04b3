#pragma once
// The geometric services: rigid fit, quadric fit, normals, mass properties, reduction
// and point-to-plane ICP.
#include "zor/services/geom_properties.h"
#include "zor/services/n_point_registration.h"
#include "zor/services/quadric_surface.h"
#include "zor/services/reduce.h"
#include "zor/services/registration_icp.h"
#include "zor/services/surface_normals.h"
#include "zor/services/threads.h"
