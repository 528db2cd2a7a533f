#pragma once

// Gives the calling native thread a Python thread state that it keeps until it ends; does nothing
// on a thread that Python knows already. Made anew for each event, a state would cost more than the
// event: with the first Python frame comes fresh memory from the system, and it goes with the
// state.
//
// For a thread that has been let into Python; without the interpreter lock, which it takes for a
// moment the first time. The state goes when the thread ends, or is left to the interpreter's end
// if that has begun.
void keep_thread_state();
