// The end of a link procedure: what was asked for is made, or what had succeeded is taken back. Nobody is told here:
// the answer is what is returned.
#pragma once

#include "procedure_record.hpp"

// Unwinding may leave steps ongoing.
link_answer link_proc_finish_create(iml_link_proc *proc);
link_answer link_proc_unwind_create(iml_link_proc *proc);
link_answer link_proc_finish_update(iml_link_proc *proc);
link_answer link_proc_unwind_update(iml_link_proc *proc);
