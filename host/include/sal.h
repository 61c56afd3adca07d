// Source annotations. Those that clang can check become thread-safety attributes; the rest are
// for the reader. A lock annotation names parameters, so it stands AFTER the parameter list:
//
//     VOID ReaderStop(PDEVICE Device) _Requires_lock_held_(Device->Lock);
//
// All others may stand in front, as everywhere on this platform.
#pragma once

#if defined(__clang__)
#define SAL_TSA(attribute) __attribute__((attribute))
#else
#define SAL_TSA(attribute)
#endif

// Locks.
#define _Has_lock_kind_(kind) SAL_TSA(capability(#kind))
#define _Scoped_lock_class_ SAL_TSA(scoped_lockable)
#define _Scoped_release_ SAL_TSA(release_capability())
#define _Acquires_lock_(lock) SAL_TSA(acquire_capability(lock))
#define _Releases_lock_(lock) SAL_TSA(release_capability(lock))
#define _Acquires_exclusive_lock_(lock) SAL_TSA(acquire_capability(lock))
#define _Releases_exclusive_lock_(lock) SAL_TSA(release_capability(lock))
#define _Acquires_shared_lock_(lock) SAL_TSA(acquire_shared_capability(lock))
#define _Releases_shared_lock_(lock) SAL_TSA(release_shared_capability(lock))
#define _Requires_lock_held_(lock) SAL_TSA(requires_capability(lock))
#define _Requires_exclusive_lock_held_(lock) SAL_TSA(requires_capability(lock))
#define _Requires_shared_lock_held_(lock) SAL_TSA(requires_shared_capability(lock))
#define _Requires_lock_not_held_(lock) SAL_TSA(locks_excluded(lock))
#define _Guarded_by_(lock) SAL_TSA(guarded_by(lock))
#define _Analysis_suppress_lock_checking_ SAL_TSA(no_thread_safety_analysis)
#define _Interlocked_
#define _Interlocked_operand_
#define _Benign_race_begin_
#define _Benign_race_end_
#define _No_competing_thread_
#define _Write_guarded_by_(lock)
#define _Post_same_lock_(lock1, lock2)
#define _Requires_no_locks_held_

// Interrupt request level.
#define _IRQL_requires_(irql)
#define _IRQL_requires_max_(irql)
#define _IRQL_requires_min_(irql)
#define _IRQL_requires_same_
#define _IRQL_raises_(irql)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_saves_global_(kind, param)
#define _IRQL_restores_global_(kind, param)
#define _IRQL_always_function_max_(irql)
#define _IRQL_always_function_min_(irql)
#define _IRQL_is_cancel_
#define _IRQL_uses_cancel_

// Roles and kinds of routines.
#define _Function_class_(name)
#define _Dispatch_type_(major)
#define _Kernel_requires_resource_held_(kind)
#define _Kernel_clear_do_init_(yesNo)
#define _Use_decl_annotations_
#define _Must_inspect_result_
#define _Check_return_
#define _Success_(expr)
#define _Return_type_success_(expr)
#define _On_failure_(annos)
#define _When_(expr, annos)
#define _At_(target, annos)
#define _Group_(annos)
#define _Always_(annos)
#define _Pre_satisfies_(expr)
#define _Post_satisfies_(expr)
#define _Analysis_assume_(expr) ((void)0)
#define __analysis_assume(expr) ((void)0)
#define __drv_allocatesMem(kind)
#define __drv_freesMem(kind)
#define __drv_aliasesMem
#define _Drv_allocatesMem_(kind)

// Parameters and results.
#define _In_
#define _In_opt_
#define _In_z_
#define _In_opt_z_
#define _In_reads_(count)
#define _In_reads_opt_(count)
#define _In_reads_bytes_(size)
#define _In_reads_bytes_opt_(size)
#define _In_range_(low, high)
#define _Out_
#define _Out_opt_
#define _Out_range_(low, high)
#define _Out_writes_(count)
#define _Out_writes_opt_(count)
#define _Out_writes_z_(count)
#define _Out_writes_to_(size, count)
#define _Out_writes_all_(count)
#define _Out_writes_bytes_(size)
#define _Out_writes_bytes_opt_(size)
#define _Out_writes_bytes_all_(size)
#define _Out_writes_bytes_to_(size, count)
#define _Out_writes_bytes_to_opt_(size, count)
#define _Outptr_
#define _Outptr_opt_
#define _Outptr_result_maybenull_
#define _Outptr_result_nullonfailure_
#define _Outptr_result_bytebuffer_(size)
#define _Inout_
#define _Inout_opt_
#define _Inout_z_
#define _Inout_updates_(count)
#define _Inout_updates_bytes_(size)
#define _Inout_updates_bytes_opt_(size)
#define _Ret_maybenull_
#define _Ret_notnull_
#define _Ret_z_
#define _Pre_
#define _Post_
#define _Pre_maybenull_
#define _Pre_notnull_
#define _Pre_valid_
#define _Post_invalid_
#define _Post_ptr_invalid_
#define _Frees_ptr_
#define _Frees_ptr_opt_
#define _Reserved_
#define _Printf_format_string_
#define _Field_size_(count)
#define _Field_size_bytes_(size)
#define _Field_size_full_(count)
#define _Field_range_(low, high)
#define _Field_z_
#define _Null_terminated_
#define _Maybenull_
#define _Notnull_
#define _Null_
#define _Points_to_data_
#define _Struct_size_bytes_(size)
