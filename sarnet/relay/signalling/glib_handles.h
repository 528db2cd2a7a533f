#pragma once

#include <glib-object.h>

#include <memory>

namespace sarnet::relay {

// Owners for what GLib and the libraries on it count or allocate. `release` is called once, never
// with null.
template <auto release>
struct Release {
  template <class T>
  void operator()(T* object) const {
    release(object);
  }
};

template <class Object>
using GObjectHandle = std::unique_ptr<Object, Release<g_object_unref>>;
using GObjectPtr = GObjectHandle<GObject>;
using TextPtr = std::unique_ptr<char, Release<g_free>>;
using ErrorPtr = std::unique_ptr<GError, Release<g_error_free>>;

// Of the loop of the thread that lets go of it.
struct SourceDeleter {
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};
using SourceHandle = std::unique_ptr<GSource, SourceDeleter>;

}  // namespace sarnet::relay
