#pragma once

// The whole HDF5 layer in one include.
#include "foundation/hdf5/DH5Attribute.h"
#include "foundation/hdf5/DH5Data.h"
#include "foundation/hdf5/DH5DataType.h"
#include "foundation/hdf5/DH5DontPrint.h"
#include "foundation/hdf5/DH5File.h"
#include "foundation/hdf5/DH5Filters.h"
#include "foundation/hdf5/DH5Group.h"
