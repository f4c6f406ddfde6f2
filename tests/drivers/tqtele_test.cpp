#include <gtest/gtest.h>

#include "drivers/tqtele.h"
#include "support/log_capture.h"

TEST(Tqtele, DoesNothingWithoutSession)
{
    LogCapture log;
    uint8_t on = 3;
    const tqtele_var_t table[] = {{"on", TQTELE_U8, &on}};
    EXPECT_FALSE(tqtele_ready());
    EXPECT_EQ(tqtele_register(table, 1), nullptr);
    tqtele_sync(&on, false);
    tqtele_unregister(&on);
    tqtele_uninit();
    EXPECT_EQ(on, 3);
    EXPECT_EQ(log.text(), "");
}
