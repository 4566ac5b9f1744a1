// The whole of tqcore's public interface.
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/barrier.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/error_info.h>
#include <tqcore/error_params.h>
#include <tqcore/future.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>
#include <tqcore/result.h>
#include <tqcore/safe_cast.h>
#include <tqcore/simple_date_time.h>
#include <tqcore/source_string.h>
#include <tqcore/static_instance.h>
#include <tqcore/streamers.h>
#include <tqcore/string_to.h>
#include <tqcore/string_util.h>
#include <tqcore/task.h>
#include <tqcore/thread_mutex.h>
#include <tqcore/tqcore_export.h>
#include <tqcore/transforms.h>
#include <tqcore/ucsutil.h>
#include <tqcore/version.h>
