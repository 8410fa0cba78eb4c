// CTime and CTimeSpan: the calendar in both directions, every format key,
// zone and name parsing, and the local zone across daylight saving.
#include <karu/time/time.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

using namespace Karu;

namespace {

constexpr int64_t kUsPerDay = 86400000000;

TEST(Time, SplitsIntoCalendarFields)
{
    struct Row {
        int64_t us;
        int16_t zone;
        int32_t year;
        uint32_t month, dayOfMonth, dayOfYear, weekDay, hour, minute, second, microsecond;
    } rows[] = {
        {0, 0, 1970, 1, 1, 1, 4, 0, 0, 0, 0},
        {-1, 0, 1969, 12, 31, 365, 3, 23, 59, 59, 999999},
        {0, 480, 1970, 1, 1, 1, 4, 8, 0, 0, 0},
        {0, -60, 1969, 12, 31, 365, 3, 23, 0, 0, 0},
        {951782400000000, 0, 2000, 2, 29, 60, 2, 0, 0, 0, 0},    // leap day of a 400-year leap year
        {4107542400000000, 0, 2100, 3, 1, 60, 1, 0, 0, 0, 0},    // 2100 is no leap year
        {-62135596800000000, 0, 1, 1, 1, 1, 1, 0, 0, 0, 0},      // 0001-01-01 was a Monday
        {-62135596800000001, 0, -1, 12, 31, 366, 0, 23, 59, 59, 999999},  // 1 BC is a leap year
    };
    for (const Row& r : rows) {
        const CTimeInfo i = CTime(r.us).GetTimeInfo(r.zone);
        EXPECT_EQ(i.year, r.year) << r.us;
        EXPECT_EQ(i.month, r.month) << r.us;
        EXPECT_EQ(i.dayOfMonth, r.dayOfMonth) << r.us;
        EXPECT_EQ(i.dayOfYear, r.dayOfYear) << r.us;
        EXPECT_EQ(i.weekDay, r.weekDay) << r.us;
        EXPECT_EQ(i.hour, r.hour) << r.us;
        EXPECT_EQ(i.minute, r.minute) << r.us;
        EXPECT_EQ(i.second, r.second) << r.us;
        EXPECT_EQ(i.microsecond, r.microsecond) << r.us;
        EXPECT_EQ(i.timezone, r.zone) << r.us;
        // And back.
        EXPECT_EQ(CTime::FromFields(i.year, i.month, i.dayOfMonth, i.hour, i.minute, i.second, i.microsecond, r.zone)
                      .Microseconds(),
                  r.us);
    }
    const CTimeInfo empty;
    EXPECT_EQ(empty.weekDay, 7u);
    EXPECT_EQ(empty.timezone, kLocalZone);
}

TEST(Time, ComposesWithoutRangeChecks)
{
    // Month 13 of 2008 runs into January 2009; day 40 of January into February.
    EXPECT_EQ(CTime::FromFields(2008, 13, 1, 0, 0, 0, 0, 0), CTime::FromFields(2009, 1, 1, 0, 0, 0, 0, 0));
    EXPECT_EQ(CTime::FromFields(2009, 1, 40, 0, 0, 0, 0, 0), CTime::FromFields(2009, 2, 9, 0, 0, 0, 0, 0));
    // Year 0 is this year.
    EXPECT_EQ(CTime::FromFields(0, 6, 1, 0, 0, 0, 0, 0).GetTimeInfo(0).year, CTime::Now().GetTimeInfo().year);

    std::mt19937_64 rng(11);
    for (int n = 0; n < 20000; ++n) {
        const int64_t us = static_cast<int64_t>(rng() % (2 * 400 * 366 * kUsPerDay)) - 400 * 366 * kUsPerDay;
        const int16_t zone = static_cast<int16_t>(int(rng() % 1680) - 840);
        const CTimeInfo i = CTime(us).GetTimeInfo(zone);
        ASSERT_EQ(CTime::FromFields(i.year, i.month, i.dayOfMonth, i.hour, i.minute, i.second, i.microsecond, zone)
                      .Microseconds(),
                  us)
            << "zone " << zone;
    }
}

TEST(Time, SettersReplaceOneField)
{
    CTime t = CTime::FromFields(2009, 3, 15, 10, 20, 30, 40, 0);
    t.SetMonth(7, 0);
    t.SetHour(23, 0);
    EXPECT_EQ(t, CTime::FromFields(2009, 7, 15, 23, 20, 30, 40, 0));
    t.SetDayOfYear(1, 0);
    EXPECT_EQ(t, CTime::FromFields(2009, 1, 1, 23, 20, 30, 40, 0));
    t.SetDayOfYear(365, 0);
    EXPECT_EQ(t.GetTimeInfo(0).dayOfMonth, 31);

    struct Bad {
        int32_t year;
        uint32_t day;
    } bad[] = {{2009, 0}, {2009, 366}, {2008, 367}};
    for (const Bad& b : bad) {
        CTime u = CTime::FromFields(b.year, 1, 1, 0, 0, 0, 0, 0);
        try {
            u.SetDayOfYear(b.day, 0);
            ADD_FAILURE() << b.year << "/" << b.day;
        } catch (const timeExp& e) {
            EXPECT_EQ(e.message, stringEx::Format("CTime::SetDayOfYear - Invalid day of year\n"
                                                  "  current obj's year          = %d\n"
                                                  "  current timezone in minutes = 0\n"
                                                  "  the day of year value       = %u\n",
                                                  b.year, b.day));
        }
    }
    CTime leap = CTime::FromFields(2008, 1, 1, 0, 0, 0, 0, 0);
    leap.SetDayOfYear(366, 0);
    EXPECT_EQ(leap.GetTimeInfo(0).month, 12u);
}

TEST(Time, FormatKeys)
{
    const CTime sunday = CTime::FromFields(2009, 3, 1, 0, 5, 9, 7008, 0);   // a Sunday, hour 0
    const CTime evening = CTime::FromFields(2008, 12, 31, 13, 0, 0, 0, 0);  // a Wednesday
    struct Row {
        CTime time;
        int16_t zone;
        const char* format;
        const char* expect;
    } rows[] = {
        {sunday, 0, "%Y-%M-%d %H:%T:%S.%us UTC%Z", "2009-03-01 00:05:09.007008 UTC+0000"},
        {sunday, 0, "%Y%M%d_%H%T%S", "20090301_000509"},
        {sunday, 0, "%W %B %h %P%p %A %D %ms", "7 Sun 12 AMam Mar 060 007"},
        {sunday, -330, "%Z %z", "-0530 -330"},
        {evening, 0, "%y %h %W %B %C", "08 1 3 Wed 21"},
        {CTime::FromFields(2039, 1, 1, 12, 0, 0, 0, 0), 0, "%y %h", "2039 12"},
        {CTime::FromFields(1969, 1, 1, 0, 0, 0, 0, 0), 0, "%y", "1969"},
        {CTime::FromFields(-44, 3, 15, 0, 0, 0, 0, 0), 0, "%Y %C", "-44 -1"},
        {sunday, 0, "100%% %q%Y%", "100% q2009%"},  // doubled mark, unknown key, trailing mark
        {sunday, 0, "%wm %ws", "01 10"},           // 2009-01-01 was a Thursday
        {CTime::FromFields(2009, 3, 7, 0, 0, 0, 0, 0), 0, "%wm", "01"},  // the first Saturday ends week 1
        {CTime::FromFields(2009, 3, 8, 0, 0, 0, 0, 0), 0, "%wm", "02"},
        {CTime::FromFields(2009, 1, 3, 0, 0, 0, 0, 0), 0, "%ws", "01"},
        {CTime::FromFields(2009, 1, 4, 0, 0, 0, 0, 0), 0, "%ws", "02"},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.time.Format(stringEx(r.format), r.zone), stringEx(r.expect)) << r.format;
        const std::string f(r.format), e(r.expect);
        EXPECT_EQ(r.time.Format(wstringEx(std::wstring(f.begin(), f.end()).c_str()), r.zone),
                  wstringEx(std::wstring(e.begin(), e.end()).c_str()))
            << r.format;
    }
}

TEST(Time, SpanFormatKeys)
{
    constexpr int64_t hour = 3600000000;
    struct Row {
        int64_t us;
        const char* format;
        const char* expect;
    } rows[] = {
        {36 * hour, "%TH %PH %TD %PD", "36 12 1 1"},
        {5 * hour, "%TH|%sTH", "05|5"},
        {15 * 24 * hour + 61 * 1000000 + 2003, "%W %TD %PD %TM %PM %TS %PS", "2 15 1 21601 01 1296061 01"},
        {1234567, "%Tms %Pms %Tus %Pus", "1234 234 1234567 567"},
        {-90 * 60 * 1000000LL, "%TM", "-90"},
    };
    for (const Row& r : rows)
        EXPECT_EQ(CTimeSpan(r.us).Format(stringEx(r.format)), stringEx(r.expect)) << r.format;
}

TEST(Time, ReadsZonesAndNames)
{
    struct Zone {
        const char* text;
        int16_t minutes;
    } zones[] = {
        {"", kLocalZone},     {"  ", kLocalZone}, {"NOTZ", 0},      {"X", kLocalZone},  {"UTC+0800", 480},
        {"+8", 480},          {"GMT-05:30", -330}, {"utc", 0},       {"UT-1", -60},      {"-", 0},
        {"+x", 0},            {" cut+01:15 ", 75}, {"0930", 570},    {"TAI", 0},
    };
    for (const Zone& z : zones)
        EXPECT_EQ(CTime::StrToTimeZone(z.text), z.minutes) << '"' << z.text << '"';

    struct Name {
        const char* text;
        bool month;
        uint32_t value;
    } names[] = {
        {" Sunday ", false, 0}, {"SAT", false, 6}, {"3", false, 3},  {"thu", false, 4},
        {"jan", true, 1},       {"December", true, 12}, {"sep", true, 9}, {"11", true, 11},
    };
    for (const Name& n : names)
        EXPECT_EQ(n.month ? CTime::StrToMonth(n.text) : CTime::StrToWeekDay(n.text), n.value) << n.text;
    try {
        CTime::StrToMonth("Brumaire");
        ADD_FAILURE();
    } catch (const timeExp& e) {
        EXPECT_EQ(e.message, stringEx("CTime::StrToMonth - Unknown Month : Brumaire"));
    }
    EXPECT_THROW(CTime::StrToWeekDay("someday"), timeExp);
    EXPECT_EQ(CTime::ShortMonthName(12), stringEx("Dec"));
    EXPECT_THROW(CTime::ShortMonthName(13), timeExp);
    EXPECT_THROW(CTime::ShortWeekDayName(7), timeExp);
}

TEST(Time, FileTimesAndParts)
{
    const CTime t = CTime::FromFields(2009, 3, 1, 23, 45, 0, 0, 0);
    EXPECT_EQ(CTime::FromSystemFileTime(t.ToSystemFileTime(120), 120), t);
    EXPECT_EQ(CTime(0).ToSystemFileTime(0), 116444736000000000ull);
    EXPECT_EQ(t.HourPart(0), 23u);
    EXPECT_EQ(t.HourPart(60), 0u);     // wraps into the next day
    EXPECT_EQ(t.MinutePart(-50), 55u);
    EXPECT_EQ(CTime(-1).HourPart(0), 23u);
}

// The local zone's value stands for the machine's offset in the file-time
// conversions too, as everywhere else; here +05:30, from a zone spelled out.
TEST(Time, FileTimesInTheLocalZoneUseTheLocalOffset)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("TZ", "XXX-05:30", 1);
            const CTime t = CTime::FromFields(2009, 3, 1, 23, 45, 0, 0, 0);
            // (time + 1601-to-1970 + zone) in 100-nanosecond units, with the zone at +330 minutes.
            const uint64_t expect = uint64_t(t.Microseconds() + 11644473600000000LL + 330LL * 60000000) * 10;
            bool ok = CTime::LocalOffset() == 330;
            ok = ok && t.ToSystemFileTime(kLocalZone) == expect;
            ok = ok && CTime::FromSystemFileTime(expect, kLocalZone) == t;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// The local offset is read once per process: times composed and split in the
// local zone round-trip on both sides of a daylight-saving change, with the
// offset that held when it was first read.
TEST(Time, LocalZoneIsFixedForTheProcess)
{
    // A fresh process: the parent may have read its own offset already.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // Central European rules, spelled out so that no zone database is needed.
            setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
            const int16_t offset = CTime::LocalOffset();
            bool ok = offset == 60 || offset == 120;
            const CTime winter = CTime::FromFields(2021, 1, 15, 12, 0, 0, 0, kLocalZone);
            const CTime summer = CTime::FromFields(2021, 7, 15, 12, 0, 0, 0, kLocalZone);
            ok = ok && winter.GetTimeInfo(kLocalZone).hour == 12 && summer.GetTimeInfo(kLocalZone).hour == 12;
            ok = ok && (summer - winter).Microseconds() == 181 * kUsPerDay;
            ok = ok && winter.Format(stringEx("%H:%T"), kLocalZone) == stringEx("12:00");
            setenv("TZ", "JST-9", 1);
            ok = ok && CTime::LocalOffset() == offset;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
