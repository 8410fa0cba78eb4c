// CTime and CTimeSpan: the library's clock value and its differences.
//
// A CTime is one signed 64-bit count of microseconds since 1970-01-01
// 00:00:00.000 UTC; the calendar view is computed on demand, on the
// proleptic Gregorian calendar, in any zone. Zones are signed 16-bit minutes
// east of UTC, and kLocalZone (-32768) stands for the machine's zone, whose
// offset is read once per process and then kept, so that times composed and
// split in the local zone always round-trip, across daylight-saving changes
// included.
//
// Formatting runs the library's mark-driven substitution pass with "%" as the
// mark; the keys are listed with CTime::Format. Note that the minute is %T
// and the month is %M.
#pragma once

#include <cstdint>

#include <karu/string/karuExp.h>

namespace Karu {

constexpr int16_t kLocalZone = -32768;

// The broken-down form of a CTime. Year 0 does not exist: 1 BC is -1.
struct CTimeInfo {
    int32_t year = 0;
    uint32_t month = 0;
    uint16_t dayOfYear = 1;
    uint16_t dayOfMonth = 1;
    uint32_t weekDay = 7;  // 0 Sunday .. 6 Saturday; 7 not known
    uint16_t hour = 0;
    uint16_t minute = 0;
    uint16_t second = 0;
    uint32_t microsecond = 0;
    int16_t timezone = kLocalZone;  // minutes east of UTC
};

class CTimeSpan {
public:
    constexpr CTimeSpan(int64_t microseconds = 0) noexcept : _us(microseconds) {}
    constexpr int64_t Microseconds() const noexcept { return _us; }

    // Keys: W TD PD TH sTH PH TM PM TS PS Tms Pms Tus Pus (T total, P part).
    stringEx Format(const stringEx& format) const;
    wstringEx Format(const wstringEx& format) const;

    constexpr auto operator<=>(const CTimeSpan&) const noexcept = default;
    constexpr CTimeSpan operator+(CTimeSpan o) const noexcept { return _us + o._us; }
    constexpr CTimeSpan operator-(CTimeSpan o) const noexcept { return _us - o._us; }

private:
    int64_t _us;
};

class CTime {
public:
    // What a failed clock read yields; also the open bound of time ranges.
    static constexpr int64_t kInvalid = INT64_MIN;

    constexpr CTime(int64_t microseconds = 0) noexcept : _us(microseconds) {}

    // The current time from gettimeofday, or kInvalid if that fails.
    static CTime Now() noexcept;

    constexpr int64_t Microseconds() const noexcept { return _us; }
    constexpr bool IsValid() const noexcept { return _us != kInvalid; }

    // Calendar view in a zone; the record's timezone is the resolved offset.
    void GetTimeInfo(CTimeInfo& info, int16_t zone = kLocalZone) const noexcept;
    CTimeInfo GetTimeInfo(int16_t zone = kLocalZone) const noexcept;

    // Composition from fields; year 0 means the current year in the local
    // zone. Fields are not range-checked: month 13 runs into the sum as it is.
    void SetTime(int32_t year, uint32_t month, uint32_t dayOfMonth, uint32_t hour, uint32_t minute,
                 uint32_t second, uint32_t microsecond, int16_t zone = kLocalZone) noexcept;
    static CTime FromFields(int32_t year, uint32_t month, uint32_t dayOfMonth, uint32_t hour = 0,
                            uint32_t minute = 0, uint32_t second = 0, uint32_t microsecond = 0,
                            int16_t zone = kLocalZone) noexcept;

    // Field setters: split in the zone, replace one field, compose again.
    void SetYear(int32_t year, int16_t zone = kLocalZone) noexcept;
    void SetMonth(uint32_t month, int16_t zone = kLocalZone) noexcept;
    void SetDayOfMonth(uint32_t day, int16_t zone = kLocalZone) noexcept;
    void SetHour(uint32_t hour, int16_t zone = kLocalZone) noexcept;
    void SetMinute(uint32_t minute, int16_t zone = kLocalZone) noexcept;
    void SetSecond(uint32_t second, int16_t zone = kLocalZone) noexcept;
    void SetMicrosecond(uint32_t microsecond, int16_t zone = kLocalZone) noexcept;
    // The one setter that checks: 1 to the length of the year.
    void SetDayOfYear(uint32_t day, int16_t zone = kLocalZone);

    // Format keys, first match wins: Y y M A d D W B wm ws H h T S ms us P p Z z C.
    stringEx Format(const stringEx& format, int16_t zone = kLocalZone) const;
    wstringEx Format(const wstringEx& format, int16_t zone = kLocalZone) const;

    static uint32_t StrToWeekDay(const stringEx& text);
    static uint32_t StrToMonth(const stringEx& text);
    // "UTC+0800", "+8", "GMT-05:30", "NOTZ"; kLocalZone for text it cannot read.
    static int16_t StrToTimeZone(const stringEx& text) noexcept;
    static stringEx ShortMonthName(uint32_t month);
    static stringEx ShortWeekDayName(uint32_t weekDay);

    // 100-nanosecond units since 1601, as file systems of another family count.
    uint64_t ToSystemFileTime(int16_t zone = 0) const noexcept;
    static CTime FromSystemFileTime(uint64_t count, int16_t zone = 0) noexcept;

    // Hour of the day and minute of the hour in a zone.
    uint32_t HourPart(int16_t zone = kLocalZone) const noexcept;
    uint32_t MinutePart(int16_t zone = kLocalZone) const noexcept;

    // The local zone's offset in minutes, read once per process.
    static int16_t LocalOffset() noexcept;
    // Resolves kLocalZone to the local offset; other zones stay.
    static int16_t ResolveZone(int16_t zone) noexcept { return zone == kLocalZone ? LocalOffset() : zone; }

    // Sets the system clock (needs privileges).
    static void SetSystemTime(CTime time);

    constexpr auto operator<=>(const CTime&) const noexcept = default;
    constexpr CTimeSpan operator-(CTime o) const noexcept { return _us - o._us; }
    constexpr CTime operator+(CTimeSpan s) const noexcept { return _us + s.Microseconds(); }
    constexpr CTime operator-(CTimeSpan s) const noexcept { return _us - s.Microseconds(); }

private:
    int64_t _us;
};

// Escape commands of the format pass, one per width.
template <class T>
class CTimeStrEscapeCmd : public IStrMatchCmd<basic_string_ex<T>> {
public:
    explicit CTimeStrEscapeCmd(const CTimeInfo& info) : _info(info) {}
    int Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement) override;
    uint64_t MatchedLength() override { return _matched; }
    bool Replaced() const noexcept { return _replaced; }

private:
    CTimeInfo _info;
    uint64_t _matched = 0;
    bool _replaced = false;
};

template <class T>
class CTimeSpanStrEscapeCmd : public IStrMatchCmd<basic_string_ex<T>> {
public:
    explicit CTimeSpanStrEscapeCmd(CTimeSpan span) : _span(span) {}
    int Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement) override;
    uint64_t MatchedLength() override { return _matched; }
    bool Replaced() const noexcept { return _replaced; }

private:
    CTimeSpan _span;
    uint64_t _matched = 0;
    bool _replaced = false;
};

}  // namespace Karu
