// Times, durations and date-times with an offset, read and written.
#include <tqcore/abs_rel_time.h>
#include <tqcore/simple_date_time.h>

#include <iostream>

int main() {
  using tqcore::AbsoluteTime;
  using tqcore::RelativeTime;
  using tqcore::SimpleDateTime;

  AbsoluteTime const start = AbsoluteTime::from_string("2024-02-29T23:30:00Z");
  RelativeTime const span = RelativeTime::from_string("PT1H30M");
  AbsoluteTime const end = start + span;
  std::cout << start << " + " << span << " = " << end.as_iso8601_string() << '\n';
  std::cout << "as ISO 8601: " << span.as_iso8601_string() << '\n';

  SimpleDateTime const meeting = SimpleDateTime::from_string("2024-03-01T09:00:00+05:30");
  std::cout << "local " << meeting.as_local_time() << ", UTC " << meeting.base_time_utc()
            << ", offset " << meeting.timezone_offset() << " minutes\n";

  // A bad text raises, or with the _nothrow form comes back as a record.
  AbsoluteTime unused;
  if (tqcore::ErrorInfo::Ptr error = AbsoluteTime::from_string_nothrow("2024-13-01", &unused)) {
    std::cout << "refused: " << error->expanded_message().as_string() << '\n';
  }
  return end == AbsoluteTime::from_string("2024-03-01T01:00:00Z") ? 0 : 1;
}
