/// @file
/// The whole of tqcore's public interface.
///
/// Failures: every fallible function has one of the three shapes described with ErrorInfo; each
/// header says which codes its functions raise.
///
/// @code
/// try {
///   tqcore::Uuid const id = tqcore::Uuid::create_sequential();
///   std::cout << id.as_string() << ' ' << tqcore::AbsoluteTime::now().as_string() << '\n';
/// } catch (tqcore::ErrorException const& e) {
///   std::cerr << e.what();
/// }
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/affinity.h>
#include <tqcore/bad_alloc_handler.h>
#include <tqcore/barrier.h>
#include <tqcore/cpu.h>
#include <tqcore/diagnostics.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/error_info.h>
#include <tqcore/error_params.h>
#include <tqcore/future.h>
#include <tqcore/main_intercept.h>
#include <tqcore/murmur_hash.h>
#include <tqcore/object_key.h>
#include <tqcore/priority.h>
#include <tqcore/process_info.h>
#include <tqcore/random.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcount_ptr_guard.h>
#include <tqcore/refcounted.h>
#include <tqcore/result.h>
#include <tqcore/result_auto_signal.h>
#include <tqcore/result_control.h>
#include <tqcore/safe_cast.h>
#include <tqcore/scheduler.h>
#include <tqcore/scoped_ptr.h>
#include <tqcore/simple_date_time.h>
#include <tqcore/source_string.h>
#include <tqcore/static_instance.h>
#include <tqcore/streamers.h>
#include <tqcore/string_to.h>
#include <tqcore/string_util.h>
#include <tqcore/strong_weak_ptr.h>
#include <tqcore/task.h>
#include <tqcore/thread_mutex.h>
#include <tqcore/time_provider.h>
#include <tqcore/tqcore_export.h>
#include <tqcore/transforms.h>
#include <tqcore/ucsutil.h>
#include <tqcore/uuid.h>
#include <tqcore/version.h>
