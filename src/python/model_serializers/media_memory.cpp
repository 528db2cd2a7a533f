#include "model_serializers/media_memory.h"

#include <cstring>
#include <new>

#include "media/mr_audio_data.h"

namespace models {

namespace {

using python_utils::PyObjectPtr;

// Copied bytes follow the object in the same allocation: reused heap costs a media thread no page
// faults.
struct MediaMemory {
  PyVarObject header;
  Py_buffer description;
  Py_ssize_t length;  // in items
  std::shared_ptr<const void> owner;
};

PyTypeObject* media_memory_type = nullptr;

int get_buffer(PyObject* self, Py_buffer* view, int flags) {
  if ((flags & PyBUF_WRITABLE) == PyBUF_WRITABLE) {
    view->obj = nullptr;
    PyErr_SetString(PyExc_BufferError, "Object is not writable.");
    return -1;
  }
  auto* memory = reinterpret_cast<MediaMemory*>(self);
  *view = memory->description;
  view->obj = Py_NewRef(self);
  if ((flags & PyBUF_FORMAT) == 0) view->format = nullptr;
  if ((flags & PyBUF_ND) == PyBUF_ND) view->shape = &memory->length;
  if ((flags & PyBUF_STRIDES) == PyBUF_STRIDES) view->strides = &memory->description.itemsize;
  return 0;
}

void dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  std::destroy_at(&reinterpret_cast<MediaMemory*>(self)->owner);
  PyObject_Free(self);
  Py_DECREF(reinterpret_cast<PyObject*>(type));
}

PyObjectPtr create_memory(Py_buffer description, const std::shared_ptr<const void>& owner) {
  if (description.buf == nullptr) {
    PyErr_SetString(PyExc_ValueError, "there are no media to show");
    return nullptr;
  }
  const bool copies = owner == nullptr;
  auto* memory =
      PyObject_NewVar(MediaMemory, media_memory_type, copies ? description.len : Py_ssize_t{0});
  if (memory == nullptr) return nullptr;
  if (copies) {
    void* copy = memory + 1;
    std::memcpy(copy, description.buf, static_cast<std::size_t>(description.len));
    description.buf = copy;
  }
  memory->description = description;
  memory->length = description.len / description.itemsize;
  new (&memory->owner) std::shared_ptr<const void>(owner);
  return PyObjectPtr(reinterpret_cast<PyObject*>(memory));
}

}  // namespace

bool init_media_memory() {
  static PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char*>("Media that a view shows.")},
      {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
      {Py_bf_getbuffer, reinterpret_cast<void*>(get_buffer)},
      {0, nullptr},
  };
  static PyType_Spec spec = {"_tavrin_video._MediaMemory", sizeof(MediaMemory), 1,
                             Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};
  if (media_memory_type == nullptr) {
    media_memory_type = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&spec));
  }
  return media_memory_type != nullptr;
}

PyObjectPtr create_sample_memory(const void* samples, std::size_t count) {
  return create_memory(python_utils::construct_py_buffer_from_int16(
                           static_cast<const MRAudio::sample_t*>(samples), count),
                       nullptr);
}

PyObjectPtr create_pixel_memory(const std::uint8_t* data, std::size_t size,
                                const std::shared_ptr<const void>& owner) {
  return create_memory(python_utils::construct_py_buffer_from_uint8(data, size), owner);
}

bool is_referenced_elsewhere(const PyObjectPtr& memory) {
  return memory != nullptr && Py_REFCNT(memory.get()) > 1;
}

}  // namespace models
