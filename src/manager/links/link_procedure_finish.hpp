// The end of a link procedure: what was asked for is made, or what had succeeded is taken back. Nobody is told here:
// the answer is what is returned.
#pragma once

#include "manager/table/link_table.hpp"
#include "procedure_record.hpp"

// What the beginning and the end of a procedure have in common.
link_answer link_proc_out_of_memory();
void link_proc_trace_update(const iml_link *link);
void link_proc_disable_vlan(iml_link_proc *proc);

// Unwinding may leave steps ongoing.
link_answer link_proc_finish_create(iml_link_proc *proc);
link_answer link_proc_unwind_create(iml_link_proc *proc);
link_answer link_proc_finish_update(iml_link_proc *proc);
link_answer link_proc_unwind_update(iml_link_proc *proc);
