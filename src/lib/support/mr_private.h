#pragma once

/// Records that go to the real-time library by name rather than through its header. Plain C; the
/// order of the fields is part of the binary interface.
extern "C" {

/// The argument of a statistics callback. Nothing fills it.
struct snt_device_stats {
  double memory_resident;
  double memory_virtual;
  double cpu_user;
  double cpu_system;
  double cpu_total;
  double cpu_device;
  long cpu_cores;
};

typedef void (*snt_client_logger_device_stats_cb)(struct snt_device_stats* stats);

/// Identifies the caller. The receiver frees each text and then the record with `free`.
struct snt_device_info {
  const char* device_uuid;
  const char* bundle_id;       ///< the version
  const char* system_version;  ///< client identity, wrapper language and version
  const char* device_model;
  const char* network_status;
  snt_client_logger_device_stats_cb stats_callback;  ///< null: no statistics
  char device_cannot_do_simulcast;                   ///< 'n' or 'y'
};
}
