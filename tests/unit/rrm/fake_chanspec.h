// Channel, bandwidth and primary text of the chanspecs that the fake drivers of the RRM tests
// and of fuzzing report: the centre channel in the low byte, 0x1000 20 MHz, 0x1800 40 MHz,
// 0x2000 80 MHz, 0x100 the upper primary. Header only: the fuzz targets are built without the
// test libraries.
#ifndef ORVD_TESTS_UNIT_RRM_FAKE_CHANSPEC_H
#define ORVD_TESTS_UNIT_RRM_FAKE_CHANSPEC_H

inline int fake_chanspec_channel(unsigned chanspec)
{
    return static_cast<int>(chanspec & 0xFF);
}

inline int fake_chanspec_bw(unsigned chanspec)
{
    switch (chanspec & 0x3800) {
    case 0x1800:
        return 40;
    case 0x2000:
        return 80;
    default:
        return 20;
    }
}

inline const char* fake_chanspec_primary(unsigned chanspec)
{
    if (fake_chanspec_bw(chanspec) != 40)
        return "none";
    return (chanspec & 0x100) != 0 ? "upper" : "lower";
}

#endif
