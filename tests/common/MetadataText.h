#pragma once

#include "DBasicImageOptionalData.h"

#include <sstream>
#include <string>

namespace norvexa_test {

/// Every metadata item as "name=value;" ("-" when absent), whatever the allocator: one
/// comparison checks what a reader set and that it set nothing else.
template <class Allocator>
std::string everything(const norvexa::imglib::DBasicImageOptionalData<Allocator>& data)
{
    std::ostringstream out;
    auto put = [&](const char* name, const auto& value) {
        out << name << "=";
        if (value)
            out << *value;
        else
            out << "-";
        out << ";";
    };
#define NORVEXA_PUT(NAME, VALUE, STORED, UNIT, PATH1, PATH2, PATH3) put(#NAME, data.NAME());
    NORVEXA_METADATA_ITEMS(NORVEXA_PUT)
#undef NORVEXA_PUT
    put("imageDescription", data.imageDescription());
    put("header", data.rawHeader());
    put("rotation", data.rotation_angle());
    put("step", data.rotation_angle_step());
    out << "index=" << data.neXusIndex() << ";modules=" << (data.modules() ? data.modules()->size() : 0);
    return out.str();
}

} // namespace norvexa_test
