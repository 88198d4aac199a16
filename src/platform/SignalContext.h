// What a signal handler may change about the thread that it has interrupted. `context` is the third argument of a
// handler that was set up with SA_SIGINFO. Both functions are safe in such a handler.
#pragma once

namespace kel::platform {

// Has the thread call `function` where it was interrupted, when the handler returns. `function` must not return: the
// registers are not saved for it. Nor must it need an aligned stack: it gets that of the moment. A debugger sees it
// called from the interrupted instruction.
void CallOnReturn(void* context, void (*function)());

// Moves the stack pointer up to the next address that can be read, when it points below the stack, as that of a thread
// which has used up its stack does.
void BringStackIntoReach(void* context);

}  // namespace kel::platform
