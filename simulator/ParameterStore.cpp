#include "ParameterStore.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace norvexa {
namespace simulator {

namespace {

bool isNumber(const Json::Value& v) { return v.isInt() || v.isUInt() || v.isDouble() || v.isInt64() || v.isUInt64(); }

std::string text(const Json::Value& v)
{
    if (v.isString())
        return v.asString();
    std::ostringstream out;
    if (v.isDouble())
        out << v.asDouble();
    else if (v.isBool())
        out << (v.asBool() ? "true" : "false");
    else if (v.isIntegral())
        out << v.asInt64();
    else
        out << "?";
    return out.str();
}

} // namespace

Json::Value Parameter::toJson() const
{
    Json::Value object(Json::objectValue);
    object["value"] = value;
    object["value_type"] = valueType;
    object["access_mode"] = writable ? "rw" : "r";
    if (!min.isNull())
        object["min"] = min;
    if (!max.isNull())
        object["max"] = max;
    if (!allowed.empty()) {
        Json::Value list(Json::arrayValue);
        for (const std::string& a : allowed)
            list.append(a);
        object["allowed_values"] = list;
    }
    if (!unit.empty())
        object["unit"] = unit;
    return object;
}

std::string ParameterStore::key(const std::string& interface, const std::string& section)
{
    return interface + "/" + section;
}

void ParameterStore::define(const std::string& interface, const std::string& section,
                            const std::string& name, Parameter parameter)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _tables[key(interface, section)][name] = std::move(parameter);
}

bool ParameterStore::hasTable(const std::string& interface, const std::string& section) const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _tables.count(key(interface, section)) != 0;
}

std::optional<Json::Value> ParameterStore::get(const std::string& interface, const std::string& section,
                                               const std::string& name) const
{
    std::lock_guard<std::mutex> lock(_mutex);
    const auto table = _tables.find(key(interface, section));
    if (table == _tables.end())
        return std::nullopt;
    const auto found = table->second.find(name);
    if (found == table->second.end())
        return std::nullopt;
    return found->second.toJson();
}

Json::Value ParameterStore::value(const std::string& interface, const std::string& section,
                                  const std::string& name) const
{
    std::lock_guard<std::mutex> lock(_mutex);
    const auto table = _tables.find(key(interface, section));
    if (table == _tables.end())
        return Json::Value();
    const auto found = table->second.find(name);
    return found == table->second.end() ? Json::Value() : found->second.value;
}

void ParameterStore::setValue(const std::string& interface, const std::string& section,
                              const std::string& name, Json::Value value)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _tables[key(interface, section)][name].value = std::move(value);
}

PutResult ParameterStore::put(const std::string& interface, const std::string& section,
                              const std::string& name, const Json::Value& value)
{
    std::lock_guard<std::mutex> lock(_mutex);
    const auto table = _tables.find(key(interface, section));
    if (table == _tables.end() || !table->second.count(name))
        return {404, "Parameter " + name + " not found", {}};
    Parameter& p = table->second[name];
    if (!p.writable)
        return {405, "Parameter " + name + " is read-only", {}};

    Json::Value stored = value;
    if (p.valueType == "float") {
        if (!isNumber(value))
            return {400, name + ": expected a number, got " + text(value), {}};
        stored = Json::Value(value.asDouble());
    } else if (p.valueType == "int") {
        // A real server refuses a fraction for a count instead of rounding it.
        if (!isNumber(value) || (value.isDouble() && !value.isIntegral()) || !value.isInt())
            return {400, name + ": expected an integer, got " + text(value), {}};
        stored = Json::Value(value.asInt());
    } else if (p.valueType == "bool") {
        if (!value.isBool())
            return {400, name + ": expected true or false, got " + text(value), {}};
    } else if (p.valueType == "string") {
        if (!value.isString())
            return {400, name + ": expected a string, got " + text(value), {}};
    }
    if (isNumber(stored) && ((!p.min.isNull() && stored.asDouble() < p.min.asDouble()) ||
                             (!p.max.isNull() && stored.asDouble() > p.max.asDouble())))
        return {400, name + ": value " + text(stored) + " out of range [" + text(p.min) + ", " +
                         text(p.max) + "]",
                {}};
    if (!p.allowed.empty() &&
        std::find(p.allowed.begin(), p.allowed.end(), stored.asString()) == p.allowed.end())
        return {400, name + ": value " + text(stored) + " is not among the allowed values", {}};
    p.value = stored;
    return {200, "", {name}};
}

Json::Value ParameterStore::snapshot(const std::string& interface, const std::string& section) const
{
    std::lock_guard<std::mutex> lock(_mutex);
    Json::Value object(Json::objectValue);
    const auto table = _tables.find(key(interface, section));
    if (table != _tables.end())
        for (const auto& [name, p] : table->second)
            object[name] = p.value;
    return object;
}

Parameter readOnly(Json::Value value, const std::string& valueType, const std::string& unit)
{
    Parameter p;
    p.value = std::move(value);
    p.valueType = valueType;
    p.unit = unit;
    return p;
}

Parameter ranged(Json::Value value, const std::string& valueType, double min, double max,
                 const std::string& unit)
{
    Parameter p = readOnly(std::move(value), valueType, unit);
    p.writable = true;
    if (valueType == "int") {
        p.min = static_cast<int>(min);
        p.max = static_cast<int>(max);
    } else {
        p.min = min;
        p.max = max;
    }
    return p;
}

Parameter choice(const std::string& value, std::vector<std::string> allowed)
{
    Parameter p = readOnly(value, "string");
    p.writable = true;
    p.allowed = std::move(allowed);
    return p;
}

Parameter flag(bool value)
{
    Parameter p = readOnly(value, "bool");
    p.writable = true;
    return p;
}

} // namespace simulator
} // namespace norvexa
