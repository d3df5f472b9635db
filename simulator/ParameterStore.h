#pragma once

#include <json/value.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace norvexa {
namespace simulator {

/// One parameter of a detector's server as its REST interface shows it.
struct Parameter {
    Json::Value value;
    /// "float", "int", "bool", "string" or "list": what a write must carry.
    std::string valueType;
    bool writable = false;
    /// Null when the parameter has no such limit.
    Json::Value min;
    Json::Value max;
    /// Empty when any value of the type is allowed.
    std::vector<std::string> allowed;
    std::string unit;

    /// The object a GET answers: "value", "value_type", "access_mode", and the limits,
    /// allowed values and unit where there are any.
    Json::Value toJson() const;
};

/// The outcome of a write: a status with a text for the reply, and the names of the
/// parameters that changed.
struct PutResult {
    int status = 200;
    std::string message;
    std::vector<std::string> changed;
};

/// All parameters of the server, one table per interface and section ("detector" and
/// "config", "monitor" and "status", ...), so that a new interface is only a new table.
/// Thread-safe: the HTTP threads and the acquisition read and write it at once.
class ParameterStore {
public:
    void define(const std::string& interface, const std::string& section, const std::string& name,
                Parameter parameter);
    bool hasTable(const std::string& interface, const std::string& section) const;
    /// The parameter as a GET shows it, or nothing for an unknown name.
    std::optional<Json::Value> get(const std::string& interface, const std::string& section,
                                   const std::string& name) const;
    /// The bare value; null for an unknown name.
    Json::Value value(const std::string& interface, const std::string& section,
                      const std::string& name) const;
    /// Sets a value as the server itself does, without the checks of a client's write.
    void setValue(const std::string& interface, const std::string& section, const std::string& name,
                  Json::Value value);
    /// A client's write: 404 for an unknown name, 405 for a read-only one, 400 with a text
    /// for a value of the wrong type, outside [min, max] or not among the allowed values.
    PutResult put(const std::string& interface, const std::string& section, const std::string& name,
                  const Json::Value& value);
    /// Every value of a table, by name.
    Json::Value snapshot(const std::string& interface, const std::string& section) const;

private:
    using Table = std::map<std::string, Parameter>;
    static std::string key(const std::string& interface, const std::string& section);

    mutable std::mutex _mutex;
    std::map<std::string, Table> _tables;
};

/// Shorthands for the tables of the server.
Parameter readOnly(Json::Value value, const std::string& valueType, const std::string& unit = "");
Parameter ranged(Json::Value value, const std::string& valueType, double min, double max,
                 const std::string& unit = "");
Parameter choice(const std::string& value, std::vector<std::string> allowed);
Parameter flag(bool value);

} // namespace simulator
} // namespace norvexa
