// Source annotations, empty outside the WDK's analysers.
#pragma once

#define _In_
#define _In_opt_
#define _In_z_
#define _In_reads_(count)
#define _In_reads_opt_(count)
#define _In_reads_bytes_(size)
#define _In_reads_bytes_opt_(size)
#define _Out_
#define _Out_opt_
#define _Out_writes_(count)
#define _Out_writes_bytes_(size)
#define _Out_writes_bytes_opt_(size)
#define _Out_writes_to_(capacity, count)
#define _Inout_
#define _Inout_opt_
#define _Outptr_
#define _Outptr_opt_result_maybenull_
#define _Must_inspect_result_
#define _Use_decl_annotations_
#define _Check_return_
#define _Function_class_(role)
#define _IRQL_requires_(level)
#define _IRQL_requires_max_(level)
#define _IRQL_requires_min_(level)
#define _IRQL_requires_same_
#define _Requires_lock_held_(lock)
#define _Requires_lock_not_held_(lock)
#define _Acquires_lock_(lock)
#define _Releases_lock_(lock)
#define _Analysis_assume_same_lock_(lock1, lock2)
#define _When_(condition, annotations)
#define _Field_size_bytes_(size)
#define _Ret_maybenull_
#define _Post_invalid_
#define UNREFERENCED_PARAMETER(parameter) ((void)(parameter))
