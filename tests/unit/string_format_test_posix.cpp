// printf in a thread that has a locale of its own.
#include "format_support.h"
#include "support/platform.h"

#include <locale.h>

TEST(StringFormat, AWidthThatNoNumberHoldsIsRefused) {
    qorString text("before");
    print(text, "%2147483648d", 1);
    EXPECT_TRUE(text.IsEmpty());
}

TEST(StringFormat, TheThreadsLocaleDoesNotChangeTheResult) {
    const qor::test::comma_locale comma;
    const locale_t own = duplocale(LC_GLOBAL_LOCALE);
    uselocale(own);
    expect_results_of_the_c_locale();
    EXPECT_EQ(uselocale(LC_GLOBAL_LOCALE), own);
    freelocale(own);
}

TEST(StringFormat, AThreadWithoutALocaleHasNoneAfterwards) {
    const qor::test::comma_locale comma;
    expect_results_of_the_c_locale();
    EXPECT_EQ(uselocale(nullptr), LC_GLOBAL_LOCALE);
}
