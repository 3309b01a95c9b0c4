#include <gtest/gtest.h>

#include "TYPES/type_pkg.h"

namespace {

class Types : public ::testing::Test {
protected:
    TYPE_PKG pkg;
    TYPE* i16 = pkg.mk_int(TYPE::IK_INT, true);
    TYPE* u16 = pkg.mk_int(TYPE::IK_UINT, false);
};

TEST_F(Types, SizesAreCountedInSixteenBitUnits) {
    TYPE* i32 = pkg.mk_int(TYPE::IK_LONG, true, 32, 32, false, false);
    EXPECT_EQ(i32->size_in_bytes(), 2u);
    EXPECT_EQ(i32->align_in_bytes(), 2u);
    EXPECT_EQ(pkg.mk_int(TYPE::IK_CHAR, true)->size_in_bytes(), 1u);
    EXPECT_EQ(pkg.mk_array(i16, 10)->size_in_bytes(), 10u);
}

TEST_F(Types, StorageSizeRoundsScalarsOnly) {
    EXPECT_EQ(pkg.mk_int(TYPE::IK_LLONG, true, 48, 16, false, false)->storage_size(), 64u);
    EXPECT_EQ(pkg.mk_int(TYPE::IK_LLONG, true, 64, 64, false, false)->storage_size(), 64u);
    EXPECT_EQ(pkg.mk_int(TYPE::IK_LONG, true, 17, 16, false, false)->storage_size(), 32u);
    EXPECT_EQ(pkg.mk_ptr(i16, 22, 16)->storage_size(), 32u);
    EXPECT_EQ(pkg.mk_union("u", 48, 16, 0)->storage_size(), 48u);
    EXPECT_EQ(pkg.mk_array(i16, 3)->storage_size(), 48u);
}

TEST_F(Types, KindPredicates) {
    TYPE* e = pkg.mk_enum("color");
    TYPE* p = pkg.mk_ptr(i16);
    TYPE* s = pkg.mk_struct("s", 32, 16, 0);
    EXPECT_TRUE(i16->is_arithmetic() && i16->is_scalar());
    EXPECT_TRUE(e->is_arithmetic() && e->is_scalar());
    EXPECT_TRUE(p->is_scalar());
    EXPECT_FALSE(p->is_arithmetic());
    EXPECT_TRUE(pkg.mk_vpred()->is_arithmetic());
    EXPECT_FALSE(s->is_scalar() || s->is_arithmetic());
    EXPECT_FALSE(pkg.mk_union("u")->is_scalar());
    EXPECT_EQ(e->kind, 12);
    EXPECT_EQ(p->kind, 5);
    EXPECT_EQ(pkg.mk_union("u")->kind, 15);
    EXPECT_EQ(pkg.mk_qual(i16, TYPE::Q_CONST)->kind, 7);
    EXPECT_EQ(pkg.mk_typedef("myint", i16)->kind, 8);
}

TEST_F(Types, SignednessLooksThroughWrappers) {
    TYPE* cu = pkg.mk_qual(u16, TYPE::Q_VOLATILE);
    EXPECT_TRUE(pkg.mk_typedef("t", i16)->is_signed());
    EXPECT_FALSE(cu->is_signed());
    EXPECT_TRUE(cu->is_unsigned());
    EXPECT_FALSE(pkg.mk_array(cu, 4)->is_signed());
    EXPECT_TRUE(pkg.mk_array(pkg.mk_qual(i16, TYPE::Q_CONST), 4)->is_signed());
    EXPECT_TRUE(pkg.mk_enum("e", i16, 16, 16, 0)->is_signed());
    EXPECT_FALSE(pkg.mk_enum("e2", u16, 16, 16, 0)->is_signed());
    EXPECT_TRUE(pkg.mk_fltpt(TYPE::FK_LDOUBLE)->is_signed());
    EXPECT_FALSE(pkg.mk_ptr(i16)->is_signed());
}

TEST_F(Types, RankTableAndEnumerations) {
    const int expected[12] = {0, 1, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5};
    for (int k = 0; k < 12; ++k)
        EXPECT_EQ(pkg.mk_int(static_cast<TYPE::IKIND>(k), true)->rank(), expected[k]) << k;
    EXPECT_EQ(pkg.mk_enum("e", pkg.mk_int(TYPE::IK_LONG, true), 32, 32, 0)->rank(), 4);
}

TEST_F(Types, PromotionsDependOnTheSizeOfInt) {
    TYPE* us_same = pkg.mk_int(TYPE::IK_USHORT, false, 16, 16, false, false);
    TYPE* us_small = pkg.mk_int(TYPE::IK_USHORT, false, 8, 8, false, false);
    EXPECT_EQ(pkg.c_integral_promotions(us_same), u16);
    EXPECT_EQ(pkg.c_integral_promotions(us_small), i16);
    EXPECT_EQ(pkg.c_integral_promotions(pkg.mk_int(TYPE::IK_SCHAR, true)), i16);
    EXPECT_EQ(pkg.c_integral_promotions(pkg.mk_int(TYPE::IK_SHORT, true)), i16);
    TYPE* b = pkg.mk_boolean_int();
    EXPECT_EQ(pkg.c_integral_promotions(b), b);
    TYPE* l = pkg.mk_int(TYPE::IK_LONG, true);
    EXPECT_EQ(pkg.c_integral_promotions(l), l);
    TYPE* f = pkg.mk_fltpt(TYPE::FK_FLOAT);
    EXPECT_EQ(pkg.c_integral_promotions(f), f);
    EXPECT_EQ(pkg.c_integral_promotions(pkg.mk_enum("e", pkg.mk_int(TYPE::IK_CHAR, true), 16, 16, 0)), i16);
}

TEST_F(Types, UsualArithmeticConversions) {
    TYPE_PKG* saved = type_pkg;
    type_pkg = &pkg;
    TYPE* l = pkg.mk_int(TYPE::IK_LONG, true);
    TYPE* ul = pkg.mk_int(TYPE::IK_ULONG, false);
    TYPE* d = pkg.mk_fltpt(TYPE::FK_DOUBLE);
    EXPECT_EQ(c_usual_arith_conv(i16, d), d);
    EXPECT_EQ(c_usual_arith_conv(i16, l), l);
    EXPECT_EQ(c_usual_arith_conv(i16, u16), u16);
    EXPECT_EQ(c_usual_arith_conv(l, u16), l);  // long holds every unsigned int here
    EXPECT_EQ(c_usual_arith_conv(l, ul), ul);
    type_pkg = saved;
}

TEST_F(Types, StructuralTypesAreSharedNominalOnesAreNot) {
    EXPECT_EQ(pkg.mk_int(TYPE::IK_INT, true), i16);
    EXPECT_EQ(pkg.mk_ptr(i16), pkg.mk_ptr(i16));
    EXPECT_NE(pkg.mk_ptr(i16), pkg.mk_ptr(u16));
    EXPECT_NE(pkg.mk_struct("s"), pkg.mk_struct("s"));
    TYPE* copy = new TYPE(TYPE::PTR_T);
    copy->base = i16;
    copy->size = copy->align = 32;
    EXPECT_EQ(pkg.intern(copy), pkg.mk_ptr(i16));
    EXPECT_EQ(pkg.mk_signed(u16), i16);
    EXPECT_EQ(pkg.mk_unsigned(i16), u16);
}

TEST_F(Types, Compatibility) {
    TYPE* t = pkg.mk_typedef("T", i16);
    EXPECT_TRUE(compatible_types(t, i16, false));
    EXPECT_FALSE(compatible_types(pkg.mk_qual(i16, TYPE::Q_CONST), i16, false));
    EXPECT_TRUE(compatible_types(pkg.mk_qual(i16, TYPE::Q_CONST), i16, true));
    EXPECT_TRUE(compatible_types(pkg.mk_array(i16), pkg.mk_array(i16, 4), false));
    EXPECT_FALSE(compatible_types(pkg.mk_array(i16, 3), pkg.mk_array(i16, 4), false));
    EXPECT_FALSE(compatible_types(pkg.mk_ptr(i16), pkg.mk_ptr(u16), false));
    EXPECT_EQ(merge_types(pkg.mk_array(i16), pkg.mk_array(i16, 4)), pkg.mk_array(i16, 4));
    EXPECT_TRUE(exact_types(i16, pkg.mk_int(TYPE::IK_INT, true)));
    TYPE* s1 = pkg.mk_struct("s", 16, 16, 0);
    TYPE* s2 = pkg.mk_struct("s", 16, 16, 0);
    EXPECT_FALSE(compatible_types(s1, s2, false));
    s2->replacement = s1;
    EXPECT_TRUE(exact_types(s1, s2));
}

TEST_F(Types, ErrorNames) {
    EXPECT_STREQ(error_code_name(0), "no error");
    EXPECT_STREQ(error_code_name(1), "object size not supported");
    EXPECT_STREQ(error_code_name(7), "unknown error");
}

TEST_F(Types, InternalErrorsExitWithOne) {
    TYPE* p = pkg.mk_ptr(i16);
    EXPECT_EXIT(p->rank(), ::testing::ExitedWithCode(1), "TP>> internal error: Bad type: TYPE::rank\\(\\)\n");
    EXPECT_EXIT(i16->elem_type(), ::testing::ExitedWithCode(1), "Bad kind:  TYPE::elem_type\\(\\)");
    EXPECT_EXIT(i16->getr(TYPE::PTR_T), ::testing::ExitedWithCode(1), "Bad kind:  TYPE::getr\\(\\)");
    TYPE stray(TYPE::INT_T);
    EXPECT_EXIT(pkg.c_integral_promotions(&stray), ::testing::ExitedWithCode(1),
                "Unregistered type:  c_integral_promotions\\(\\)");
}

}  // namespace
