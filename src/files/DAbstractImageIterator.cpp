#include "DAbstractImageIterator.h"

namespace norvexa {
namespace imglib {

DAbstractImageIterator::~DAbstractImageIterator() = default;

} // namespace imglib
} // namespace norvexa
