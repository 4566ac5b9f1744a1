/// @file
/// The process's environment in UTF-8, the file names of the family's shared libraries, and a
/// counted switch between a process's privileged and unprivileged states.
///
/// Failures: the environment functions raise "error.tqcore.string.embeddedNul" for a name holding a
/// NUL; privilege changes have shape 3 and give "error.tqcore.hardware" with the system's errno
/// record nested.
///
/// @code
/// bool set = false;
/// std::string const home = tqcore::get_environment_variable("HOME", 4, &set);
/// @endcode
#pragma once

#include <tqcore/error_info.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>
#include <tqcore/streamers.h>
#include <tqcore/thread_mutex.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <iosfwd>
#include <string>

namespace tqcore {

/// The value of an environment variable; empty, with `*exists` false, when it is not set.
/// Raises "error.tqcore.string.embeddedNul" for a name with a NUL inside.
TQCORE_EXPORT std::string get_environment_variable(char const* name, size_t name_length,
                                                   bool* exists);
/// `text` with each $NAME and ${NAME} replaced by the variable's value; a reference to a
/// variable that is not set, and a "$" that starts no name, stay as they stand.
TQCORE_EXPORT std::string expand_environment_variables(std::string const& text);
/// The file name of a library of the family: "lib<name>.so.<major>.<minor>", which the build
/// gives its own libraries ("libtqcore.so.0.1").
TQCORE_EXPORT std::string get_shared_library_name_for_module(std::string const& name,
                                                             unsigned int major,
                                                             unsigned int minor);

namespace impl {
/// A way of becoming privileged and unprivileged; the counting is ProcessPrivileges'.
class TQCORE_EXPORT ProcessPrivilegesImpl : public RefCounted<AtomicRefCount> {
 public:
  virtual void write_trace(std::ostream& stream) const = 0;
  virtual void to_privileged_state(ErrorInfo::Ptr* error) = 0;
  virtual void to_unprivileged_state(ErrorInfo::Ptr* error) = 0;

  ThreadMutex m_mutex;
  unsigned int m_depth = 0;
};
}  // namespace impl

/// The process-wide privilege switch, counted: the first to_privileged changes the state, the
/// matching last to_unprivileged changes it back. In a set-user-id program (real and saved user
/// ids differ) the privileged state has the saved user id as its effective one, the
/// unprivileged state the real one; every other process has nothing to switch.
class TQCORE_EXPORT ProcessPrivileges : public streamers::Streamable<ProcessPrivileges> {
 public:
  /// The process's one object. It is never destroyed: code that runs during exit may still
  /// switch, and a second copy of the library in the process must not destroy it twice.
  static ProcessPrivileges& process_privileges();

  /// Shape 3: on failure, `*error` gets the record (null on success).
  void to_privileged(ErrorInfo::Ptr* error);
  void to_unprivileged(ErrorInfo::Ptr* error);
  bool is_privileged() const;
  void write_trace(std::ostream& stream) const;

  explicit ProcessPrivileges(RefCountPtr<impl::ProcessPrivilegesImpl> impl) noexcept
      : m_impl(std::move(impl)) {}

 private:
  ProcessPrivileges();

  RefCountPtr<impl::ProcessPrivilegesImpl> m_impl;
};

}  // namespace tqcore
