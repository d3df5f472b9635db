#include "DStreamTables.h"

namespace norvexa {
namespace imglib {

namespace {
const std::string DETECTOR = "/entry/instrument/detector/";
const std::string SPECIFIC = "/entry/instrument/detector/detectorSpecific/";
} // namespace

const std::map<std::string, std::string> NEXUS_PATH = {
    {"auto_summation", SPECIFIC + "auto_summation"},
    {"beam_center_x", DETECTOR + "beam_center_x"},
    {"beam_center_y", DETECTOR + "beam_center_y"},
    {"bit_depth_readout", DETECTOR + "bit_depth_readout"},
    {"calibration_type", SPECIFIC + "calibration_type"},
    {"count_time", DETECTOR + "count_time"},
    {"countrate_correction_applied", DETECTOR + "countrate_correction_applied"},
    {"countrate_correction_bunch_mode", SPECIFIC + "countrate_correction_bunch_mode"},
    {"countrate_correction_table", SPECIFIC + "detectorModule_000/countrate_correction_table"},
    {"data_collection_date", SPECIFIC + "data_collection_date"},
    {"description", DETECTOR + "description"},
    {"detector_distance", DETECTOR + "detector_distance"},
    {"detector_number", DETECTOR + "detector_number"},
    {"detector_orientation", DETECTOR + "geometry/orientation/value"},
    {"detector_readout_period", SPECIFIC + "detector_readout_period"},
    {"detector_readout_time", DETECTOR + "detector_readout_time"},
    {"detector_translation", DETECTOR + "geometry/translation/distances"},
    {"efficiency_correction_applied", DETECTOR + "efficiency_correction_applied"},
    {"element", SPECIFIC + "element"},
    {"flatfield", SPECIFIC + "flatfield"},
    {"flatfield_correction_applied", DETECTOR + "flatfield_correction_applied"},
    {"frame_count_time", SPECIFIC + "frame_count_time"},
    {"frame_period", SPECIFIC + "frame_period"},
    {"frame_time", DETECTOR + "frame_time"},
    {"nframes_sum", SPECIFIC + "nframes_sum"},
    {"nimages", SPECIFIC + "nimages"},
    {"ntrigger", SPECIFIC + "ntrigger"},
    {"number_of_excluded_pixels", SPECIFIC + "number_of_excluded_pixels"},
    {"photon_energy", SPECIFIC + "photon_energy"},
    {"pixel_mask", SPECIFIC + "pixel_mask"},
    {"pixel_mask_applied", DETECTOR + "pixel_mask_applied"},
    {"sensor_material", DETECTOR + "sensor_material"},
    {"sensor_thickness", DETECTOR + "sensor_thickness"},
    {"software_version", SPECIFIC + "software_version"},
    {"summation_nimages", SPECIFIC + "summation_nimages"},
    {"threshold_energy", DETECTOR + "threshold_energy"},
    {"trigger_mode", SPECIFIC + "trigger_mode"},
    {"virtual_pixel_correction_applied", DETECTOR + "virtual_pixel_correction_applied"},
    {"wavelength", "/entry/instrument/beam/incident_wavelength"},
    {"x_pixel_size", DETECTOR + "x_pixel_size"},
    {"x_pixels_in_detector", SPECIFIC + "x_pixels_in_detector"},
    {"y_pixel_size", DETECTOR + "y_pixel_size"},
    {"y_pixels_in_detector", SPECIFIC + "y_pixels_in_detector"},
};

const std::map<std::string, std::string> NEXUS_UNIT = {
    {"beam_center_x", "pixel"},
    {"beam_center_y", "pixel"},
    {"count_time", "s"},
    {"detector_distance", "m"},
    {"detector_readout_period", "s"},
    {"detector_readout_time", "s"},
    {"detector_translation", "m"},
    {"frame_count_time", "s"},
    {"frame_period", "s"},
    {"frame_time", "s"},
    {"photon_energy", "eV"},
    {"sensor_thickness", "m"},
    {"threshold_energy", "eV"},
    {"wavelength", "A"},
    {"x_pixel_size", "m"},
    {"y_pixel_size", "m"},
};

} // namespace imglib
} // namespace norvexa
