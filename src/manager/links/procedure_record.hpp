// One open link procedure: the request that waits, the steps that are asked of the lower layers, and what comes next.
// The record is freed by nobody but its own evaluation (link_procedures.cpp).
#pragma once

#include "base/ref_index.hpp"
#include "base/step_state.hpp"
#include "link_reports.hpp"

enum proc_step_kind : uint32_t {
    PROC_STEP_PMI = 0,
    PROC_STEP_EMI_ADD = 1,
    PROC_STEP_EMI_DEL = 2,
    PROC_STEP_KINDS = 3,
};

struct proc_step {
    uint32_t procedure_ref; // of the request sent last; 0: none was sent
    proc_step_state state;
    ref_index_node by_ref;
};

struct iml_link_proc {
    IemliPendingRequest *request; // owned; null once it was answered, and when nobody asked
    proc_step steps[PROC_STEP_KINDS];
    IemliLinkData *link_data; // owned
    uint64_t age;             // counts up with every procedure opened
    iml_link_proc *next;      // older
    iml_link_proc *prev;
};

// ---- Decisions: pure functions of the step states ----

// ONGOING if any step is, else FAILED if any step is, else OK.
proc_step_state proc_overall_state(proc_step_state pmi, proc_step_state emi_add, proc_step_state emi_del);

enum proc_action : uint32_t {
    PROC_WAIT,          // for another answer
    PROC_FINISH_CREATE, // every step is in place
    PROC_UNWIND_CREATE, // take back what is in place, reject
    PROC_FINISH_UPDATE,
    PROC_UNWIND_UPDATE,
    PROC_CONFIRM_DELETE,  // whatever became of its steps
    PROC_UNKNOWN_REQUEST, // a request that is none of the three
    PROC_CLOSE,           // nobody waits for an answer any more
};

// What comes next for a procedure that holds this request, or none.
proc_action proc_next_action(const IemliPendingRequest *request, proc_step_state overall);

// ---- The record ----

iml_link_proc *link_proc_alloc();
// Frees a procedure that was never opened.
void link_proc_free(iml_link_proc *proc);
void link_proc_open(iml_link_proc *proc);
// Frees an open one.
void link_proc_close(iml_link_proc *proc);
proc_step_state link_proc_overall_state(const iml_link_proc *proc);
// Of the open ones, and `next` leads to the older.
const iml_link_proc *link_proc_newest();
// The newest of the open procedures that sent a request with this procedure_ref in that step; 0 finds none.
iml_link_proc *link_proc_find(proc_step_kind kind, uint32_t procedure_ref);
// The request of a step went out under this procedure_ref: the step is ongoing.
void link_proc_step_sent(iml_link_proc *proc, proc_step_kind kind, uint32_t procedure_ref);
// How many procedures are open.
uint32_t link_procedure_count();
// Frees every open procedure and its request; answers nobody.
void link_procedures_forget_all();
