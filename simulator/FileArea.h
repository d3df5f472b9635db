#pragma once

#include "DetectorStateMachine.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace norvexa {
namespace imglib {
class DHdf5Writer;
}
namespace simulator {

/// The server's file area: while the file writer's mode is "enabled", each series is
/// written as an HDF5 master file with data files under the name pattern ("$id" is the
/// series), and the files stay until they are deleted.
class FileArea : public SeriesObserver {
public:
    FileArea(std::filesystem::path root, ParameterStore& store);
    ~FileArea() override;

    void seriesStarted(const SeriesInfo& info) override;
    void frameProduced(const SeriesInfo& info, int imageNumber, const imglib::DImage& frame) override;
    bool wantsPixels() const override;
    void seriesEnded(const SeriesInfo& info, int framesProduced, bool aborted) override;

    /// The names of the files, relative to the area, sorted.
    std::vector<std::string> list() const;
    /// The file's bytes, or nothing for a name that is not a file of the area (a name
    /// that climbs out of it with ".." included).
    std::optional<std::string> read(const std::string& name) const;
    /// False when there is no such file.
    bool remove(const std::string& name);
    /// Deletes every file.
    void clear();

private:
    std::optional<std::filesystem::path> resolve(const std::string& name) const;

    std::filesystem::path _root;
    ParameterStore& _store;
    mutable std::mutex _mutex;
    std::unique_ptr<imglib::DHdf5Writer> _writer;
};

} // namespace simulator
} // namespace norvexa
