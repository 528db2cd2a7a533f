#pragma once

#include <gst/gst.h>

#include <memory>
#include <string_view>
#include <utility>

#include "relay/signalling/glib_handles.h"

namespace sarnet::relay {

// Owners for what the media stack counts.
using ElementPtr = std::unique_ptr<GstElement, Release<gst_object_unref>>;
using PadPtr = std::unique_ptr<GstPad, Release<gst_object_unref>>;
using BusPtr = std::unique_ptr<GstBus, Release<gst_object_unref>>;
using CapsPtr = std::unique_ptr<GstCaps, Release<gst_caps_unref>>;
using SamplePtr = std::unique_ptr<GstSample, Release<gst_sample_unref>>;

// Connects a signal to a static function whose last argument is a `std::weak_ptr<T>*`, which lives
// as long as the connection.
template <class T>
void connect_weakly(gpointer object, const char* signal, GCallback callback,
                    const std::weak_ptr<T>& self) {
  g_signal_connect_data(
      object, signal, callback, new std::weak_ptr<T>(self),
      [](gpointer data, GClosure*) { delete static_cast<std::weak_ptr<T>*>(data); },
      static_cast<GConnectFlags>(0));
}

template <class T>
std::shared_ptr<T> lock_weak(gpointer data) {
  return static_cast<std::weak_ptr<T>*>(data)->lock();
}

// Whether the element is of that kind ("queue").
inline bool is_made_by(GstElement* element, std::string_view factory_name) {
  const GstElementFactory* factory = gst_element_get_factory(element);
  return factory != nullptr && factory_name == GST_OBJECT_NAME(factory);
}

}  // namespace sarnet::relay
