#pragma once

#include <string>

/// Marks the types that `EventQueue::postAndWait` may return. Each such type specialises it beside
/// its own definition; its default value is what a caller gets when the task did not run.
template <class T>
inline constexpr bool kIsEventQueueResult = false;

template <>
inline constexpr bool kIsEventQueueResult<bool> = true;

template <>
inline constexpr bool kIsEventQueueResult<std::string> = true;

template <class T>
concept EventQueueResult = kIsEventQueueResult<T>;
