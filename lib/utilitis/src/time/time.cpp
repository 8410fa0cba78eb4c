// CTime, CTimeSpan and their format commands.
//
// Calendar arithmetic is done in whole days on the proleptic Gregorian
// calendar with floor division, so that times before 1970 and before year 1
// split and compose symmetrically. Internally years are astronomical (1 BC is
// year 0); the records use the historical numbering with no year 0.
//
// The local zone's offset is read once (tzset + localtime_r) and kept for the
// life of the process: composing and splitting in the local zone therefore
// use one fixed offset and always round-trip, whatever daylight saving does
// meanwhile.
#include <karu/time/time.h>

#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace Karu {
namespace {

constexpr int64_t kUsPerSecond = 1000000;
constexpr int64_t kUsPerMinute = 60 * kUsPerSecond;
constexpr int64_t kUsPerHour = 60 * kUsPerMinute;
constexpr int64_t kUsPerDay = 24 * kUsPerHour;
constexpr int64_t kDaysTo1970 = 719162;           // days from 0001-01-01 to 1970-01-01
constexpr int64_t kUsFrom1601To1970 = 11644473600000000;
constexpr int32_t kOffsetUnknown = 0x7fffffff;    // the local offset not read yet

// Each month is first taken as 31 days long; this removes the excess of the
// months before it. Row 0 common years, row 1 leap years.
constexpr int16_t kMonthCorrection[2][12] = {
    {0, 0, -3, -3, -4, -4, -5, -5, -5, -6, -6, -7},
    {0, 0, -2, -2, -3, -3, -4, -4, -4, -5, -5, -6},
};

constexpr const char* kMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr const char* kWeekDayNames[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonthFullNames[12] = {"january", "february", "march",     "april",   "may",      "june",
                                             "july",    "august",   "september", "october", "november", "december"};
constexpr const char* kWeekDayFullNames[7] = {"sunday",   "monday", "tuesday", "wednesday",
                                              "thursday", "friday", "saturday"};

std::atomic<int32_t> g_localOffset{kOffsetUnknown};

int64_t FloorDiv(int64_t a, int64_t b) noexcept
{
    const int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

int64_t Astronomical(int32_t year) noexcept
{
    return year < 0 ? int64_t(year) + 1 : year;
}

bool IsLeapAstronomical(int64_t a) noexcept
{
    return a % 4 == 0 && (a % 100 != 0 || a % 400 == 0);
}

// Days from 1970-01-01 to January 1st of astronomical year a.
int64_t DaysBeforeYear(int64_t a) noexcept
{
    const int64_t y = a - 1;
    return y * 365 + FloorDiv(y, 4) - FloorDiv(y, 100) + FloorDiv(y, 400) - kDaysTo1970;
}

void Split(int64_t time, int16_t zone, CTimeInfo& info) noexcept
{
    const int16_t offset = CTime::ResolveZone(zone);
    const __int128 t = __int128(time) + __int128(offset) * kUsPerMinute;
    int64_t days = static_cast<int64_t>(t / kUsPerDay);
    int64_t rest = static_cast<int64_t>(t % kUsPerDay);
    if (rest < 0) {
        days -= 1;
        rest += kUsPerDay;
    }
    info.weekDay = static_cast<uint32_t>(((days + kDaysTo1970 + 1) % 7 + 7) % 7);

    int64_t a = FloorDiv((days + kDaysTo1970) * 400, 146097) + 1;
    while (DaysBeforeYear(a) > days)
        --a;
    while (DaysBeforeYear(a + 1) <= days)
        ++a;
    const int64_t dayInYear = days - DaysBeforeYear(a);  // from 0
    const int leap = IsLeapAstronomical(a) ? 1 : 0;
    uint32_t month = 12;
    while (month > 1 && (month - 1) * 31 + kMonthCorrection[leap][month - 1] > dayInYear)
        --month;

    info.year = static_cast<int32_t>(a <= 0 ? a - 1 : a);
    info.month = month;
    info.dayOfYear = static_cast<uint16_t>(dayInYear + 1);
    info.dayOfMonth = static_cast<uint16_t>(dayInYear - ((month - 1) * 31 + kMonthCorrection[leap][month - 1]) + 1);
    info.hour = static_cast<uint16_t>(rest / kUsPerHour);
    info.minute = static_cast<uint16_t>(rest / kUsPerMinute % 60);
    info.second = static_cast<uint16_t>(rest / kUsPerSecond % 60);
    info.microsecond = static_cast<uint32_t>(rest % kUsPerSecond);
    info.timezone = offset;
}

int64_t Compose(int32_t year, uint32_t month, uint32_t dayOfMonth, uint32_t hour, uint32_t minute, uint32_t second,
                uint32_t microsecond, int16_t zone) noexcept
{
    if (year == 0)
        year = CTime::Now().GetTimeInfo(kLocalZone).year;
    const int64_t a = Astronomical(year);
    const int leap = IsLeapAstronomical(a) ? 1 : 0;
    // Months out of 1..12 run into the sum; only the correction is clamped.
    const uint32_t index = month == 0 ? 0 : month > 12 ? 11 : month - 1;
    const int64_t dayInYear = (int64_t(month) - 1) * 31 + int64_t(dayOfMonth) - 1 + kMonthCorrection[leap][index];
    // Unsigned arithmetic: absurd field values wrap instead of overflowing.
    const uint64_t sum = uint64_t(DaysBeforeYear(a) + dayInYear) * uint64_t(kUsPerDay) +
                         uint64_t(hour) * uint64_t(kUsPerHour) + uint64_t(minute) * uint64_t(kUsPerMinute) +
                         uint64_t(second) * uint64_t(kUsPerSecond) + microsecond -
                         uint64_t(int64_t(CTime::ResolveZone(zone)) * kUsPerMinute);
    return static_cast<int64_t>(sum);
}

// Trimmed, lower-cased copy of a name, and its value if it is a number.
bool ReadName(const stringEx& text, stringEx& name, int64_t& number)
{
    name = text;
    name.Trim().MakeLower();
    uint64_t end = 0;
    number = name.ToInt(&end);
    return end != 0 && end == name.size();
}

uint32_t LookUpName(const stringEx& text, const char* const* shortNames, const char* const* fullNames,
                    uint32_t count, uint32_t first, const char* head)
{
    stringEx name;
    int64_t number;
    if (ReadName(text, name, number))
        return static_cast<uint32_t>(number);
    for (uint32_t i = 0; i < count; ++i) {
        stringEx lowShort(shortNames[i]);
        lowShort.MakeLower();
        if (name == lowShort || name == stringEx(fullNames[i]))
            return i + first;
    }
    throw timeExp(stringEx(head) + text, 1);
}

// Narrow text into the width of the format being expanded.
template <class T>
basic_string_ex<T> Units(const char* text)
{
    return basic_string_ex<T>::Format("%s", text);
}

template <class T>
bool KeyAt(const basic_string_ex<T>& view, const char* key) noexcept
{
    uint64_t i = 0;
    for (; key[i]; ++i)
        if (i >= view.size() || view[i] != static_cast<T>(key[i]))
            return false;
    return true;
}

// Week number, weeks beginning on Sunday: the first week ends on the first
// Saturday of the month or year.
unsigned short WeekOf(uint32_t day, uint32_t weekDayOfFirst) noexcept
{
    const uint32_t firstWeek = 7 - weekDayOfFirst;
    if (day <= firstWeek)
        return 1;
    return static_cast<unsigned short>(1 + (day - firstWeek + 6) / 7);
}

}  // namespace

// ---- CTime ------------------------------------------------------------------------

CTime CTime::Now() noexcept
{
    timeval tv;
    if (gettimeofday(&tv, nullptr) != 0)
        return CTime(kInvalid);
    return CTime(int64_t(tv.tv_sec) * kUsPerSecond + tv.tv_usec);
}

int16_t CTime::LocalOffset() noexcept
{
    int32_t offset = g_localOffset.load(std::memory_order_relaxed);
    if (offset != kOffsetUnknown)
        return static_cast<int16_t>(offset);
    tzset();
    const time_t now = time(nullptr);
    tm local{};
    offset = localtime_r(&now, &local) ? static_cast<int32_t>(local.tm_gmtoff / 60) : 0;
    g_localOffset.exchange(offset);
    return static_cast<int16_t>(offset);
}

void CTime::GetTimeInfo(CTimeInfo& info, int16_t zone) const noexcept
{
    Split(_us, zone, info);
}

CTimeInfo CTime::GetTimeInfo(int16_t zone) const noexcept
{
    CTimeInfo info;
    Split(_us, zone, info);
    return info;
}

void CTime::SetTime(int32_t year, uint32_t month, uint32_t dayOfMonth, uint32_t hour, uint32_t minute,
                    uint32_t second, uint32_t microsecond, int16_t zone) noexcept
{
    _us = Compose(year, month, dayOfMonth, hour, minute, second, microsecond, zone);
}

CTime CTime::FromFields(int32_t year, uint32_t month, uint32_t dayOfMonth, uint32_t hour, uint32_t minute,
                        uint32_t second, uint32_t microsecond, int16_t zone) noexcept
{
    return CTime(Compose(year, month, dayOfMonth, hour, minute, second, microsecond, zone));
}

#define KARU_TIME_SETTER(name, type, field)                                                                 \
    void CTime::name(type value, int16_t zone) noexcept                                                     \
    {                                                                                                       \
        CTimeInfo i = GetTimeInfo(zone);                                                                    \
        i.field = static_cast<decltype(i.field)>(value);                                                    \
        _us = Compose(i.year, i.month, i.dayOfMonth, i.hour, i.minute, i.second, i.microsecond, zone);      \
    }
KARU_TIME_SETTER(SetYear, int32_t, year)
KARU_TIME_SETTER(SetMonth, uint32_t, month)
KARU_TIME_SETTER(SetDayOfMonth, uint32_t, dayOfMonth)
KARU_TIME_SETTER(SetHour, uint32_t, hour)
KARU_TIME_SETTER(SetMinute, uint32_t, minute)
KARU_TIME_SETTER(SetSecond, uint32_t, second)
KARU_TIME_SETTER(SetMicrosecond, uint32_t, microsecond)
#undef KARU_TIME_SETTER

void CTime::SetDayOfYear(uint32_t day, int16_t zone)
{
    const CTimeInfo i = GetTimeInfo(zone);
    const uint32_t length = IsLeapAstronomical(Astronomical(i.year)) ? 366 : 365;
    if (day == 0 || day > length)
        Throw<timeExp>(ExpMessage("CTime::SetDayOfYear - Invalid day of year\n")
                           .Detail("current obj's year", int64_t(i.year))
                           .Detail("current timezone in minutes", int64_t(zone))
                           .Detail("the day of year value", int64_t(day)),
                       2);
    const int64_t shift = int64_t(day) - i.dayOfYear;
    _us += shift * kUsPerDay;
}

uint32_t CTime::StrToWeekDay(const stringEx& text)
{
    return LookUpName(text, kWeekDayNames, kWeekDayFullNames, 7, 0, "CTime::StrToWeekDay - Unknown Weekday : ");
}

uint32_t CTime::StrToMonth(const stringEx& text)
{
    return LookUpName(text, kMonthNames, kMonthFullNames, 12, 1, "CTime::StrToMonth - Unknown Month : ");
}

int16_t CTime::StrToTimeZone(const stringEx& text) noexcept
{
    stringEx t = text;
    t.Trim();
    if (t.empty())
        return kLocalZone;
    t.MakeUpper();
    if (t.StartsWith("NOTZ"))
        return 0;
    uint64_t pos;
    if (t.StartsWith("UTC") || t.StartsWith("GMT") || t.StartsWith("CUT") || t.StartsWith("TAI"))
        pos = 3;
    else if (t.StartsWith("UT"))
        pos = 2;
    else if (!std::strchr("0123456789+-", t[0]))
        return kLocalZone;
    else
        pos = 0;
    auto isDigit = [&](uint64_t p) { return p < t.size() && t[p] >= '0' && t[p] <= '9'; };
    auto readTwo = [&](uint64_t& p) {
        int value = 0;
        for (int n = 0; n < 2 && isDigit(p); ++n)
            value = value * 10 + (t[p++] - '0');
        return value;
    };
    if (pos >= t.size())
        return 0;
    bool negative = false;
    if (t[pos] == '-' || t[pos] == '+')
        negative = t[pos++] == '-';
    if (!isDigit(pos))
        return 0;
    int minutes = readTwo(pos) * 60;
    const uint64_t colon = t.Find(':', pos);
    if (colon != stringEx::npos)
        pos = colon + 1;
    if (isDigit(pos))
        minutes += readTwo(pos);
    return static_cast<int16_t>(negative ? -minutes : minutes);
}

stringEx CTime::ShortMonthName(uint32_t month)
{
    if (month < 1 || month > 12)
        Throw<timeExp>(ExpMessage("CTime::ShortMonthName - invalid month\n").Detail("month", int64_t(month)), 3);
    return stringEx(kMonthNames[month - 1]);
}

stringEx CTime::ShortWeekDayName(uint32_t weekDay)
{
    if (weekDay > 6)
        Throw<timeExp>(ExpMessage("CTime::ShortWeekDayName - invalid weekday\n").Detail("weekday", int64_t(weekDay)),
                       3);
    return stringEx(kWeekDayNames[weekDay]);
}

uint64_t CTime::ToSystemFileTime(int16_t zone) const noexcept
{
    return static_cast<uint64_t>(_us + kUsFrom1601To1970 + int64_t(ResolveZone(zone)) * kUsPerMinute) * 10;
}

CTime CTime::FromSystemFileTime(uint64_t count, int16_t zone) noexcept
{
    return CTime(static_cast<int64_t>(count / 10) - kUsFrom1601To1970 - int64_t(ResolveZone(zone)) * kUsPerMinute);
}

uint32_t CTime::HourPart(int16_t zone) const noexcept
{
    const int64_t t = _us + int64_t(ResolveZone(zone)) * kUsPerMinute;
    return static_cast<uint32_t>(((t % kUsPerDay) + kUsPerDay) % kUsPerDay / kUsPerHour);
}

uint32_t CTime::MinutePart(int16_t zone) const noexcept
{
    const int64_t t = _us + int64_t(ResolveZone(zone)) * kUsPerMinute;
    return static_cast<uint32_t>(((t % kUsPerHour) + kUsPerHour) % kUsPerHour / kUsPerMinute);
}

void CTime::SetSystemTime(CTime time)
{
    timeval tv;
    tv.tv_sec = static_cast<time_t>(FloorDiv(time._us, kUsPerSecond));
    tv.tv_usec = static_cast<suseconds_t>(time._us - int64_t(tv.tv_sec) * kUsPerSecond);
    int error = 0;
    do {
        error = settimeofday(&tv, nullptr) == 0 ? 0 : errno;
    } while (error == EINTR);
    if (error == 0)
        return;
    ExpMessage message("CTime::SetSystemTime - failed set the system time\n");
    message.Text(stringEx::Format("  microseconds since 1970-01-01 00:00:00.000: %lld\n", (long long)time._us));
    if (error == EINVAL)
        message.Text("             may be out of range\n");
    else
        message.Errno(error, {{EPERM, "permission denied"}});
    Throw<timeExp>(message, 4);
}

template <class T>
static basic_string_ex<T> FormatTime(const CTime& time, const basic_string_ex<T>& format, int16_t zone)
{
    CTimeStrEscapeCmd<T> cmd(time.GetTimeInfo(zone));
    basic_string_ex<T> out = format;
    return ExpandMatches<T>(out, T('%'), cmd, false, false);
}

stringEx CTime::Format(const stringEx& format, int16_t zone) const
{
    return FormatTime<char>(*this, format, zone);
}

wstringEx CTime::Format(const wstringEx& format, int16_t zone) const
{
    return FormatTime<wchar_t>(*this, format, zone);
}

// ---- CTimeSpan -------------------------------------------------------------------------

template <class T>
static basic_string_ex<T> FormatSpan(CTimeSpan span, const basic_string_ex<T>& format)
{
    CTimeSpanStrEscapeCmd<T> cmd(span);
    basic_string_ex<T> out = format;
    return ExpandMatches<T>(out, T('%'), cmd, false, false);
}

stringEx CTimeSpan::Format(const stringEx& format) const
{
    return FormatSpan<char>(*this, format);
}

wstringEx CTimeSpan::Format(const wstringEx& format) const
{
    return FormatSpan<wchar_t>(*this, format);
}

// ---- the format commands -----------------------------------------------------------------

template <class T>
int CTimeStrEscapeCmd<T>::Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement)
{
    static constexpr const char* kKeys[] = {"Y",  "y", "M", "A", "d",  "D",  "W", "B", "wm", "ws", "H",
                                            "h",  "T", "S", "ms", "us", "P", "p", "Z", "z",  "C"};
    const CTimeInfo& i = _info;
    char text[64] = "";
    uint64_t key = 0;
    for (; key < std::size(kKeys); ++key)
        if (KeyAt(view, kKeys[key]))
            break;
    const uint32_t firstOfMonth = (i.weekDay + 7 * 5 - (i.dayOfMonth - 1u) % 7) % 7;
    const uint32_t firstOfYear = (i.weekDay + 7 * 53 - (i.dayOfYear - 1u) % 7) % 7;
    switch (key) {
    case 0: std::snprintf(text, sizeof text, "%li", long(i.year)); break;
    case 1:
        std::snprintf(text, sizeof text, "%02li", long(i.year >= 1970 && i.year <= 2038 ? i.year % 100 : i.year));
        break;
    case 2: std::snprintf(text, sizeof text, "%02hu", (unsigned short)i.month); break;
    case 3: std::snprintf(text, sizeof text, "%s", kMonthNames[(i.month + 11) % 12]); break;
    case 4: std::snprintf(text, sizeof text, "%02hu", i.dayOfMonth); break;
    case 5: std::snprintf(text, sizeof text, "%03hu", i.dayOfYear); break;
    case 6: std::snprintf(text, sizeof text, "%hu", (unsigned short)(i.weekDay == 0 ? 7 : i.weekDay)); break;
    case 7: std::snprintf(text, sizeof text, "%s", kWeekDayNames[i.weekDay % 7]); break;
    case 8: std::snprintf(text, sizeof text, "%02hu", WeekOf(i.dayOfMonth, firstOfMonth)); break;
    case 9: std::snprintf(text, sizeof text, "%02hu", WeekOf(i.dayOfYear, firstOfYear)); break;
    case 10: std::snprintf(text, sizeof text, "%02hu", i.hour); break;
    case 11: std::snprintf(text, sizeof text, "%hu", (unsigned short)(i.hour % 12 == 0 ? 12 : i.hour % 12)); break;
    case 12: std::snprintf(text, sizeof text, "%02hu", i.minute); break;
    case 13: std::snprintf(text, sizeof text, "%02hu", i.second); break;
    case 14: std::snprintf(text, sizeof text, "%.3lu", (unsigned long)(i.microsecond / 1000)); break;
    case 15: std::snprintf(text, sizeof text, "%.6lu", (unsigned long)i.microsecond); break;
    case 16: std::snprintf(text, sizeof text, "%s", i.hour < 12 ? "AM" : "PM"); break;
    case 17: std::snprintf(text, sizeof text, "%s", i.hour < 12 ? "am" : "pm"); break;
    case 18: {
        const int zone = i.timezone < 0 ? -int(i.timezone) : i.timezone;
        std::snprintf(text, sizeof text, "%c%02u%02u", i.timezone < 0 ? '-' : '+', unsigned(zone / 60),
                      unsigned(zone % 60));
        break;
    }
    case 19: std::snprintf(text, sizeof text, "%hi", i.timezone); break;
    case 20: std::snprintf(text, sizeof text, "%hi", short(i.year / 100 + (i.year > 0 ? 1 : -1))); break;
    default: break;  // unknown key: the mark alone is dropped
    }
    _matched = key < std::size(kKeys) ? std::strlen(kKeys[key]) : 0;
    replacement = Units<T>(text);
    _replaced = true;
    return 1;
}

template <class T>
int CTimeSpanStrEscapeCmd<T>::Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement)
{
    static constexpr const char* kKeys[] = {"W",  "TD", "PD", "TH",  "sTH", "PH",  "TM",
                                            "PM", "TS", "PS", "Tms", "Pms", "Tus", "Pus"};
    const int64_t signedUs = _span.Microseconds();
    const unsigned long us = signedUs < 0 ? 0ul - static_cast<unsigned long>(signedUs) : signedUs;
    const char* sign = signedUs < 0 ? "-" : "";
    char text[64] = "";
    uint64_t key = 0;
    for (; key < std::size(kKeys); ++key)
        if (KeyAt(view, kKeys[key]))
            break;
    switch (key) {
    case 0: std::snprintf(text, sizeof text, "%s%lu", sign, us / (7 * kUsPerDay)); break;
    case 1: std::snprintf(text, sizeof text, "%s%lu", sign, us / kUsPerDay); break;
    case 2: std::snprintf(text, sizeof text, "%lu", us / kUsPerDay % 7); break;
    case 3: std::snprintf(text, sizeof text, "%s%02lu", sign, us / kUsPerHour); break;
    case 4: std::snprintf(text, sizeof text, "%s%lu", sign, us / kUsPerHour); break;
    case 5: std::snprintf(text, sizeof text, "%02hu", (unsigned short)(us / kUsPerHour % 24)); break;
    case 6: std::snprintf(text, sizeof text, "%s%lu", sign, us / kUsPerMinute); break;
    case 7: std::snprintf(text, sizeof text, "%02hu", (unsigned short)(us / kUsPerMinute % 60)); break;
    case 8: std::snprintf(text, sizeof text, "%s%lu", sign, us / kUsPerSecond); break;
    case 9: std::snprintf(text, sizeof text, "%02hu", (unsigned short)(us / kUsPerSecond % 60)); break;
    case 10: std::snprintf(text, sizeof text, "%s%lu", sign, us / 1000); break;
    case 11: std::snprintf(text, sizeof text, "%03hu", (unsigned short)(us / 1000 % 1000)); break;
    case 12: std::snprintf(text, sizeof text, "%s%lu", sign, us); break;
    case 13: std::snprintf(text, sizeof text, "%03hu", (unsigned short)(us % 1000)); break;
    default: break;
    }
    _matched = key < std::size(kKeys) ? std::strlen(kKeys[key]) : 0;
    replacement = Units<T>(text);
    _replaced = true;
    return 1;
}

template class CTimeStrEscapeCmd<char>;
template class CTimeStrEscapeCmd<wchar_t>;
template class CTimeSpanStrEscapeCmd<char>;
template class CTimeSpanStrEscapeCmd<wchar_t>;

}  // namespace Karu
