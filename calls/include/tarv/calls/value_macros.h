// The macros behind TARV_VALUE and TARV_ENUM: plain text replacement, no code. Read value.h instead.
#ifndef TARV_CALLS_VALUE_MACROS_H
#define TARV_CALLS_VALUE_MACROS_H

// TARV_DETAILS_EACH(F, T, a, b, c) is F(T, a) F(T, b) F(T, c), for 1 to 32 names.
#define TARV_DETAILS_EACH(F, T, ...) \
  TARV_DETAILS_JOIN(TARV_DETAILS_EACH_, TARV_DETAILS_COUNT(__VA_ARGS__))(F, T, __VA_ARGS__)

#define TARV_DETAILS_JOIN(a, b) TARV_DETAILS_JOIN_AGAIN(a, b)
#define TARV_DETAILS_JOIN_AGAIN(a, b) a##b

// The number of its arguments, 1 to 32.
#define TARV_DETAILS_COUNT(...)                                                                    \
  TARV_DETAILS_THE_34TH(__VA_ARGS__, TOO_MANY, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, \
                        19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define TARV_DETAILS_THE_34TH(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, \
                              a16, a17, a18, a19, a20, a21, a22, a23, a24, a25, a26, a27, a28,  \
                              a29, a30, a31, a32, a33, n, ...)                                  \
  n

#define TARV_DETAILS_EACH_1(F, T, a) F(T, a)
#define TARV_DETAILS_EACH_2(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_1(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_3(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_2(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_4(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_3(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_5(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_4(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_6(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_5(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_7(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_6(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_8(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_7(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_9(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_8(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_10(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_9(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_11(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_10(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_12(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_11(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_13(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_12(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_14(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_13(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_15(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_14(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_16(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_15(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_17(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_16(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_18(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_17(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_19(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_18(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_20(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_19(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_21(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_20(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_22(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_21(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_23(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_22(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_24(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_23(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_25(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_24(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_26(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_25(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_27(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_26(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_28(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_27(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_29(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_28(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_30(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_29(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_31(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_30(F, T, __VA_ARGS__)
#define TARV_DETAILS_EACH_32(F, T, a, ...) F(T, a) TARV_DETAILS_EACH_31(F, T, __VA_ARGS__)

#endif  // TARV_CALLS_VALUE_MACROS_H
