/* csmith seed 136, reduced: opt5 -o2 hung in value propagation when a short
   range of 64-bit values ended at the largest one.  A main that runs it
   was added after the reduction. */
#include "csmith.h"
 union U0 {
    volatile uint32_t  f0;
    uint16_t  f1;
    uint64_t  f2;
 };
  union U1 {
    uint64_t  f0;
    uint16_t  f1;
    const volatile int32_t  f2;
    uint32_t  f3;
    volatile uint32_t  f4;
 };
  union U4 {
    int64_t  f0;
    uint16_t  f1;
    volatile int32_t  f2;
    volatile int64_t  f3;
    uint32_t  f4;
 };
  static int64_t g_50[9][1][5] = {
{{6L,0x4E7FB108F98093AFLL,(-6L),1L,0L}}
,{{0xF603F559CDE89C67LL,6L,1L,7L,1L}}
,{{7L,7L,0L,1L,(-6L)}}
,{{6L,(-1L),0L,0xEF5D3CC114FF6A91LL,0xF603F559CDE89C67LL}}
,{{0x132DC1B2D863E320LL,0L,1L,0L,0x132DC1B2D863E320LL}}
,{{1L,(-1L),(-6L),0x132DC1B2D863E320LL,7L}}
,{{1L,7L,0xF603F559CDE89C67LL,0x4E7FB108F98093AFLL,0x4E7FB108F98093AFLL}}
,{{0x132DC1B2D863E320LL,6L,0x132DC1B2D863E320LL,0xD05199242039CE85LL,0L}}
,{{0x132DC1B2D863E320LL,0xF603F559CDE89C67LL,0L,0xD05199242039CE85LL,0x4E7FB108F98093AFLL}}
};
  static int32_t g_55 = 1L;
  static uint32_t g_85 = 0xF9336AE2L;
  static volatile union U4 g_93 = {
1L};
  static union U1 g_245 = {
0x453F8A4F2D4D6344LL};
  static union U4 g_253 = {
0xB808DDD281216697LL};
  static union U4 *g_256 = &g_253;
  static int16_t g_402 = 0xAD5CL;
  static volatile uint16_t *g_459 = &g_93.f1;
  static volatile uint16_t ** volatile g_458 = &g_459;
  static union U1 g_472 = {
18446744073709551615UL};
  static union U1 g_602 = {
0x3F2215A22E7760B8LL};
  static union U4 g_673 = {
-5L};
  static union U1 g_693 = {
0x93388D81086B3BCELL};
  static union U0 g_699 = {
18446744073709551613UL};
  static uint64_t *g_723 = &g_472.f0;
  static uint64_t **g_722 = &g_723;
  static int32_t g_740 = (-1L);
  static int32_t *g_739 = &g_740;
  static union U4 ** volatile g_771 = &g_256;
  static union U1 *g_872 = &g_602;
  static volatile union U0 g_1001 = {
0x6C6F54AEL};
  static int32_t *g_1150 = &g_55;
  static int32_t **g_1149 = &g_1150;
  static int64_t g_1225 = (-10L);
  static union U0 g_1441 = {
0x31794CCCL};
  static int32_t g_1622[10][3][1] = {
{{7L},{0x80B2C79AL},{0L}}
,{{0x4A9B7A5DL},{0x06D97354L},{7L}}
,{{0x06D97354L},{0x4A9B7A5DL},{0L}}
,{{0x80B2C79AL},{7L},{0x80B2C79AL}}
,{{0L},{0x4A9B7A5DL},{0x06D97354L}}
,{{7L},{0x06D97354L},{0x4A9B7A5DL}}
,{{0L},{0x80B2C79AL},{7L}}
,{{0x80B2C79AL},{0L},{0x4A9B7A5DL}}
,{{0x06D97354L},{7L},{0x06D97354L}}
,{{0x4A9B7A5DL},{0L},{0x80B2C79AL}}
};
  static union U1 **g_1803 = (void*)0;
  static union U1 ** const *g_1802 = &g_1803;
  static int32_t  func_6(int16_t  p_7, uint64_t  p_8) {
      int32_t *l_1765[6] = {&g_1622[6][1][0],&g_1622[7][2][0],&g_1622[7][2][0],&g_1622[6][1][0],&g_1622[7][2][0],&g_1622[7][2][0]};
     int32_t l_1766[6][6][2] = {{{0xC44EDA72L,0xC44EDA72L},{0xC44EDA72L,(-1L)},{1L,(-1L)},{(-1L),(-1L)},{1L,(-1L)},{0xC44EDA72L,0xC44EDA72L}},{{0xC44EDA72L,(-1L)},{1L,(-1L)},{(-1L),(-1L)},{1L,(-1L)},{0xC44EDA72L,0xC44EDA72L},{0xC44EDA72L,(-1L)}},{{1L,(-1L)},{(-1L),(-1L)},{1L,(-1L)},{0xC44EDA72L,0xC44EDA72L},{0xC44EDA72L,(-1L)},{1L,(-1L)}},{{(-1L),(-1L)},{1L,(-1L)},{0xC44EDA72L,0xC44EDA72L},{0xC44EDA72L,(-1L)},{1L,(-1L)},{(-1L),(-1L)}},{{1L,(-1L)},{0xC44EDA72L,0xC44EDA72L},{0xC44EDA72L,(-1L)},{1L,(-1L)},{(-1L),(-1L)},{1L,(-1L)}},{{0xC44EDA72L,0xC44EDA72L},{0xC44EDA72L,(-1L)},{1L,(-1L)},{(-1L),0xC44EDA72L},{0L,1L},{(-1L),(-1L)}}};
     int16_t l_1767 = 0x07ADL;
     int32_t l_1768 = 0x4D688C0EL;
     uint32_t l_1769 = 4294967295UL;
     int64_t *l_1778 = &g_50[8][0][1];
     int64_t **l_1777 = &l_1778;
     int32_t l_1793 = 0x722092E2L;
     const int16_t *l_1833[1];
     const int16_t **l_1832 = &l_1833[0];
     int64_t *****l_1848 = (void*)0;
     uint16_t *l_1906 = &g_1441.f1;
     uint16_t **l_1905 = &l_1906;
     uint16_t ***l_1904 = &l_1905;
     uint16_t ****l_1903[7] = {&l_1904,&l_1904,&l_1904,&l_1904,&l_1904,&l_1904,&l_1904};
     int i, j, k;
     for (i = 0;
 i < 1;
 i++)         l_1833[i] = &l_1767;
     (*g_1149) = l_1765[5];
 lbl_1785:     l_1769++;
     for (g_402 = 4;
 (g_402 >= 0);
 g_402 -= 1)     {          int32_t l_1776 = 0L;         int32_t l_1784[4][2][8] = {{{0x4EBE9EC9L,0xF7DA8ECCL,0x4EBE9EC9L,0xF8073752L,0x5F13CCD3L,0x4EBE9EC9L,0L,0x60E236A8L},{0x55153784L,0xF8073752L,1L,0x5F13CCD3L,1L,1L,0x5F13CCD3L,1L}},{{0x55153784L,0x55153784L,0L,1L,0x5F13CCD3L,1L,0x55153784L,0x5F13CCD3L},{0x4EBE9EC9L,0x5F13CCD3L,0xF8073752L,0x4EBE9EC9L,0xF7DA8ECCL,0x4EBE9EC9L,0xF8073752L,0x5F13CCD3L}},{{0x5F13CCD3L,0L,1L,1L,0L,0xF8073752L,0xF7DA8ECCL,1L},{0x60E236A8L,0xF7DA8ECCL,0x12FBFC28L,0x5F13CCD3L,0x5F13CCD3L,0x12FBFC28L,0xF7DA8ECCL,0x60E236A8L}},{{1L,0x5F13CCD3L,1L,0xF8073752L,0x55153784L,1L,0xF8073752L,1L},{0x55153784L,1L,0xF8073752L,1L,0xF8073752L,1L,0x55153784L,0xF8073752L}}};         int32_t l_1877[10][10][2] = {{{(-1L),(-10L)},{0L,(-9L)},{0x4512F402L,(-1L)},{(-1L),0xFDA324A9L},{0xFDA324A9L,0x20BA489CL},{0xCF375065L,0L},{0L,0x4512F402L},{0x059A32A9L,0x3C27F5B0L},{(-9L),0x3C27F5B0L},{0x059A32A9L,0x4512F402L}},{{0L,0L},{0xCF375065L,0x20BA489CL},{0xFDA324A9L,0xFDA324A9L},{(-1L),(-1L)},{0x4512F402L,(-9L)},{0L,(-10L)},{(-1L),0L},{0x37FAE263L,0x82CF2947L},{0x37FAE263L,0L},{(-1L),(-10L)}},{{0L,(-9L)},{0x4512F402L,(-1L)},{(-1L),0xFDA324A9L},{0xFDA324A9L,0x20BA489CL},{0xCF375065L,0L},{0L,0x4512F402L},{0x059A32A9L,0x3C27F5B0L},{(-9L),0x3C27F5B0L},{0x059A32A9L,0x4512F402L},{0L,0L}},{{0xCF375065L,0x20BA489CL},{0xFDA324A9L,0xFDA324A9L},{(-1L),(-1L)},{0x4512F402L,(-9L)},{0L,(-10L)},{(-1L),0L},{0x37FAE263L,0x82CF2947L},{0x37FAE263L,0L},{(-1L),(-10L)},{0L,(-9L)}},{{0x4512F402L,(-1L)},{(-1L),0xFDA324A9L},{0xFDA324A9L,0x20BA489CL},{0xCF375065L,0L},{0L,0x4512F402L},{0x059A32A9L,0x3C27F5B0L},{(-9L),0x3C27F5B0L},{0x059A32A9L,0x4512F402L},{0L,0L},{0xCF375065L,0x20BA489CL}},{{0xFDA324A9L,0xFDA324A9L},{(-1L),(-1L)},{0x4512F402L,(-9L)},{0L,(-10L)},{(-1L),0L},{0x37FAE263L,0x82CF2947L},{0x37FAE263L,0L},{(-1L),1L},{(-9L),0x20BA489CL},{(-1L),0x3C27F5B0L}},{{(-10L),0x37FAE263L},{0x37FAE263L,0xFDA324A9L},{0x4512F402L,0x82CF2947L},{1L,(-1L)},{0xCF375065L,0L},{0x20BA489CL,0L},{0xCF375065L,(-1L)},{1L,0x82CF2947L},{0x4512F402L,0xFDA324A9L},{0x37FAE263L,0x37FAE263L}},{{(-10L),0x3C27F5B0L},{(-1L),0x20BA489CL},{(-9L),1L},{0x3C27F5B0L,(-9L)},{0x44B19154L,5L},{0x44B19154L,(-9L)},{0x3C27F5B0L,1L},{(-9L),0x20BA489CL},{(-1L),0x3C27F5B0L},{(-10L),0x37FAE263L}},{{0x37FAE263L,0xFDA324A9L},{0x4512F402L,0x82CF2947L},{1L,(-1L)},{0xCF375065L,0L},{0x20BA489CL,0L},{0xCF375065L,(-1L)},{1L,0x82CF2947L},{0x4512F402L,0xFDA324A9L},{0x37FAE263L,0x37FAE263L},{(-10L),0x3C27F5B0L}},{{(-1L),0x20BA489CL},{(-9L),1L},{0x3C27F5B0L,(-9L)},{0x44B19154L,5L},{0x44B19154L,(-9L)},{0x3C27F5B0L,1L},{(-9L),0x20BA489CL},{(-1L),0x3C27F5B0L},{(-10L),0x37FAE263L},{0x37FAE263L,0xFDA324A9L}}};         uint16_t *l_1901[2][8];         uint16_t **l_1900[10] = {(void*)0,(void*)0,(void*)0,(void*)0,(void*)0,(void*)0,(void*)0,(void*)0,(void*)0,(void*)0};         uint16_t ***l_1899 = &l_1900[8];         uint16_t ****l_1898 = &l_1899;         int i, j, k;         for (i = 0; i < 2; i++)         {             for (j = 0; j < 8; j++)                 l_1901[i][j] = (void*)0;         }         for (g_602.f1 = 0; (g_602.f1 <= 3); g_602.f1 += 1)         {              int32_t l_1781[1];             int i;             for (i = 0; i < 1; i++)                 l_1781[i] = 0xCD060FC8L;             (**g_1149) = p_8;             (**g_1149) = (safe_sub_func_uint32_t_u_u(p_7, ((safe_mod_func_uint16_t_u_u((l_1776 ^ (((*g_872) , l_1777) == (void*)0)), (((safe_div_func_uint64_t_u_u((&p_8 == &p_8), (l_1781[0] & (((((safe_add_func_int16_t_s_s(((l_1784[2][0][6] &= p_8) != g_673.f1), g_245.f3)) <= l_1781[0]) , (*g_1150)) == p_7) < p_8)))) || (*g_1150)) , (-1L)))) && (-9L))));             return l_1776;         }         if (p_7)             continue;         for (g_699.f2 = 0; (g_699.f2 <= 3); g_699.f2 += 1)         {              int32_t l_1791[3];             int16_t l_1792 = 0x151DL;             union U1 ***l_1805[8] = {&g_1803,&g_1803,&g_1803,&g_1803,&g_1803,&g_1803,&g_1803,&g_1803};             int32_t l_1816[10] = {0x4726121AL,(-2L),0x4726121AL,0x4726121AL,(-2L),0x4726121AL,0x4726121AL,(-2L),0x4726121AL,0x4726121AL};             uint64_t ***l_1890 = &g_722;             int i;             for (i = 0; i < 3; i++)                 l_1791[i] = 0xCF446361L;             if (p_8)                 goto lbl_1785;             for (g_1225 = 0; (g_1225 <= 4); g_1225 += 1)             {                  uint32_t l_1790[4];                 int32_t l_1817 = 0x89FE568BL;                 int32_t l_1818 = (-8L);                 int32_t l_1820 = 0L;                 int32_t l_1823 = (-1L);                 int32_t l_1824 = 0x6E9EB966L;                 int32_t l_1825[10][5] = {{0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL},{0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L},{0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL},{0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L},{0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL},{0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L},{0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL},{0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L},{0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL,0xB9ACB0ABL},{0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L,0x8D79C930L,0xFE65A6C7L}};                 uint64_t l_1829 = 18446744073709551607UL;                 int32_t **l_1891 = &g_739;                 uint16_t *****l_1902[5] = {&l_1898,&l_1898,&l_1898,&l_1898,&l_1898};                 int i, j;                 for (i = 0; i < 4; i++)                     l_1790[i] = 0x83C45019L;                 for (g_602.f3 = 0; (g_602.f3 <= 3); g_602.f3 += 1)                 {                      uint64_t l_1794 = 0xCDB61724644DC9E6LL;                     int32_t l_1799[6][5] = {{1L,0xCB6A97FAL,0xCB6A97FAL,1L,0x3904959FL},{1L,0xECFFB9EBL,0x9BADCB9DL,0x9BADCB9DL,0xECFFB9EBL},{0x3904959FL,0xCB6A97FAL,0x9BADCB9DL,2L,2L},{0xCB6A97FAL,0x3904959FL,0xCB6A97FAL,0x9BADCB9DL,2L},{0xECFFB9EBL,1L,2L,0xCB6A97FAL,0x9BADCB9DL},{0xECFFB9EBL,0xCB6A97FAL,0x26C388F8L,0x9BADCB9DL,0x26C388F8L}};                     int i, j;                     for (g_693.f3 = 0; (g_693.f3 <= 4); g_693.f3 += 1)                     {                          uint64_t l_1786 = 0x853D883CE872C2BALL;                         return l_1786;                     }                     if (((safe_rshift_func_uint16_t_u_u((5L ^ g_1225), (safe_unary_minus_func_uint32_t_u(((**g_771) , l_1790[0]))))) > 1UL))                     {                          l_1794++;                         l_1799[5][0] = (safe_lshift_func_uint16_t_u_u(p_8, 15));                     }                     else                     {                          union U1 ** const **l_1804 = &g_1802;                         int32_t l_1810 = 0x8C595DC0L;                         (*g_1150) &= (p_8 & (0x9DEEL != ((safe_sub_func_uint16_t_u_u((((*l_1804) = g_1802) != (l_1776 , l_1805[0])), g_1001.f0)) , (safe_mul_func_uint16_t_u_u((safe_mul_func_uint16_t_u_u(((p_8 == l_1810) , ((safe_div_func_int16_t_s_s(((safe_mul_func_int64_t_s_s((g_1441.f1 && (-1L)), 0UL)) ^ g_245.f1), g_85)) , (**g_458))), g_1441.f1)), 0x7DAFL)))));                         if (l_1791[0])                             break;                     }                     for (l_1793 = 0; (l_1793 <= 3); l_1793 += 1)                     {                          int64_t l_1815 = 0x21E469953C3B5FC4LL;                         int32_t l_1819 = (-1L);                         int32_t l_1821 = 0x6358FB8FL;                         int32_t l_1822 = (-7L);                         int32_t l_1826 = 0L;                         int32_t l_1827 = 0xBFECE3CDL;                         int32_t l_1828 = (-7L);                         const int16_t ***l_1834 = &l_1832;                         l_1829++;                         (*l_1834) = l_1832;                         l_1821 = (safe_rshift_func_int16_t_s_s(p_8, 14));                     }                 }             }         }     }
     return p_7;
 }
int main(void) {
    printf("%ld %ld\n", (long)func_6(0, 0), (long)func_6(5, 1));
    return 0;
}
