#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "python_utils.h"

// Native media for Python: a small object that owns the media and exports them as a read-only
// buffer. Every view of it, and anything made from a view, keeps the object and so the media alive,
// so a program may hold a view for as long as it likes. The caller holds the interpreter lock.
namespace models {

// Makes the type, once, at import. False with the exception pending.
bool init_media_memory();

// A copy of `count` samples. Null with the exception pending, also when `samples` is null.
python_utils::PyObjectPtr create_sample_memory(const void* samples, std::size_t count);

// The bytes at `data`, which `owner` keeps alive and unchanged; copied if there is no owner. Null
// with the exception pending, also when `data` is null.
python_utils::PyObjectPtr create_pixel_memory(const std::uint8_t* data, std::size_t size,
                                              const std::shared_ptr<const void>& owner);

// Whether anything but the given reference still refers to the memory.
bool is_referenced_elsewhere(const python_utils::PyObjectPtr& memory);

}  // namespace models
