// Keeps the open procedures and finds them by what they have asked for; decides what comes next, and does none of it.
#include "procedure_record.hpp"

#include <cstdlib>

namespace
{

iml_link_proc *newest_proc;
uint32_t proc_count;
uint64_t procs_opened;
ref_index procs_by_ref[PROC_STEP_KINDS];

} // namespace

proc_step_state proc_overall_state(proc_step_state pmi, proc_step_state emi_add, proc_step_state emi_del)
{
    if (pmi == PROC_STEP_ONGOING || emi_add == PROC_STEP_ONGOING || emi_del == PROC_STEP_ONGOING) {
        return PROC_STEP_ONGOING;
    }
    if (pmi == PROC_STEP_FAILED || emi_add == PROC_STEP_FAILED || emi_del == PROC_STEP_FAILED) {
        return PROC_STEP_FAILED;
    }
    return PROC_STEP_OK;
}

proc_action proc_next_action(const IemliPendingRequest *request, proc_step_state overall)
{
    if (overall == PROC_STEP_ONGOING) {
        return PROC_WAIT;
    }
    if (request == nullptr) {
        return PROC_CLOSE;
    }
    switch (request->action) {
    case IEMLI_PENDING_CREATE:
        return overall == PROC_STEP_OK ? PROC_FINISH_CREATE : PROC_UNWIND_CREATE;
    case IEMLI_PENDING_UPDATE:
        return overall == PROC_STEP_OK ? PROC_FINISH_UPDATE : PROC_UNWIND_UPDATE;
    case IEMLI_PENDING_DELETE:
        return PROC_CONFIRM_DELETE;
    }
    return PROC_UNKNOWN_REQUEST;
}

iml_link_proc *link_proc_alloc() { return static_cast<iml_link_proc *>(calloc(1, sizeof(iml_link_proc))); }

void link_proc_free(iml_link_proc *proc)
{
    if (proc == nullptr) {
        return;
    }
    for (uint32_t kind = 0; kind < PROC_STEP_KINDS; ++kind) {
        ref_index_remove(&procs_by_ref[kind], &proc->steps[kind].by_ref);
    }
    free(proc->request);
    free(proc->link_data);
    free(proc);
}

void link_proc_open(iml_link_proc *proc)
{
    proc->age = ++procs_opened;
    proc->next = newest_proc;
    if (newest_proc != nullptr) {
        newest_proc->prev = proc;
    }
    newest_proc = proc;
    ++proc_count;
}

const iml_link_proc *link_proc_newest() { return newest_proc; }

iml_link_proc *link_proc_find(proc_step_kind kind, uint32_t procedure_ref)
{
    iml_link_proc *found = nullptr;
    for (const ref_index_node *node = ref_index_first(&procs_by_ref[kind], procedure_ref); node != nullptr;
         node = ref_index_next(node)) {
        auto *proc = static_cast<iml_link_proc *>(node->owner);
        if (found == nullptr || proc->age > found->age) {
            found = proc;
        }
    }
    return found;
}

void link_proc_step_sent(iml_link_proc *proc, proc_step_kind kind, uint32_t procedure_ref)
{
    proc_step *step = &proc->steps[kind];
    step->procedure_ref = procedure_ref;
    step->state = PROC_STEP_ONGOING;
    ref_index_remove(&procs_by_ref[kind], &step->by_ref);
    if (procedure_ref != 0) {
        ref_index_insert(&procs_by_ref[kind], &step->by_ref, procedure_ref, proc);
    }
}

proc_step_state link_proc_overall_state(const iml_link_proc *proc)
{
    return proc_overall_state(proc->steps[PROC_STEP_PMI].state, proc->steps[PROC_STEP_EMI_ADD].state,
                              proc->steps[PROC_STEP_EMI_DEL].state);
}

void link_proc_close(iml_link_proc *proc)
{
    (proc->prev != nullptr ? proc->prev->next : newest_proc) = proc->next;
    if (proc->next != nullptr) {
        proc->next->prev = proc->prev;
    }
    --proc_count;
    link_proc_free(proc);
}

uint32_t link_procedure_count() { return proc_count; }

void link_procedures_forget_all()
{
    while (newest_proc != nullptr) {
        link_proc_close(newest_proc);
    }
    for (ref_index &index : procs_by_ref) {
        ref_index_clear(&index);
    }
}
