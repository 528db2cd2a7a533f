#pragma once

// Gives the calling native thread a Python thread state that it keeps until it ends; does nothing
// on a thread that Python knows already. Creating a state per event costs more than the event (its
// first frame allocates a chunk that goes with it), so each thread keeps one.
//
// For a thread admitted to Python; without the interpreter lock, which it takes briefly the first
// time. The state is deleted when the thread ends, or left to the interpreter once that is
// finalising.
void keep_thread_state();
