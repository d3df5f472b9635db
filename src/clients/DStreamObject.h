#pragma once

#include "DStreamConfig.h"
#include "DStreamData.h"
#include "DStreamEnd.h"

namespace norvexa {
namespace imglib {

/// What one receive of a live stream gives: a series header, an image or a series end.
/// The payloads not in use stay in their default state; a default object is an END of
/// series 0. The accessors return copies and raise DRuntimeException
/// "DStreamObject is not of type CONFIG" (DATA, END) for the wrong type.
class DStreamObject {
public:
    enum Type { CONFIG = 0, DATA = 1, END = 2 };

    DStreamObject() = default;
    explicit DStreamObject(DStreamConfig config) : _type(CONFIG), _config(std::move(config)) {}
    explicit DStreamObject(DStreamData data) : _type(DATA), _data(std::move(data)) {}
    explicit DStreamObject(DStreamEnd end) : _type(END), _end(end) {}

    Type type() const noexcept { return _type; }
    DStreamConfig config() const;
    DStreamData data() const;
    DStreamEnd end() const;

private:
    Type _type = END;
    DStreamConfig _config;
    DStreamData _data;
    DStreamEnd _end;
};

} // namespace imglib
} // namespace norvexa
