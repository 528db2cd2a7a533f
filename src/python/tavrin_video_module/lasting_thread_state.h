#pragma once

// Gives the calling native thread a Python thread state that it keeps until it ends; does nothing
// on a thread that Python knows already. Creating a state per event costs more than the event (its
// first frame allocates a chunk that goes with it), so each thread keeps one.
//
// For a thread that has been let into Python; without the interpreter lock, which it takes for a
// moment the first time. The state goes when the thread ends, or is left to the interpreter's end
// if that has begun.
void keep_thread_state();
