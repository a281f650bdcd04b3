#pragma once
// Spatial queries: static bounding-box trees over points and triangles, the nearest
// object to a point, and the trees cached on a mesh.

#include "zor/spatial/m3d_object_tree.h"
#include "zor/spatial/nearest_query.h"
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"
