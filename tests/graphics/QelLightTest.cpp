#include "graphics/QelLight.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(QelLightTest, NewWithArgumentsReplacesEachPartOfTheDefaultLight)
{
    const auto light = QelLight::New();
    ASSERT_NE(light, nullptr);
    EXPECT_EQ(light->Location(), QelVector3(0.95f, -0.5f, -1.5f));
    EXPECT_EQ(light->Type(), Light_Type::Shaded);
    EXPECT_EQ(light->Ambient(), 0.1254902f);
    EXPECT_EQ(light->Material().Diffuse, QelVector3(0.78431374f, 0.78431374f, 0.78431374f));
    EXPECT_EQ(light->Material().Specular, QelVector3(0.0f, 0.0f, 0.0f));
    EXPECT_EQ(light->Material().Shininess, 32u);

    const auto lit = QelLight::New(QelVector3(1.0f, 2.0f, 3.0f), 0.25f, 0.5f, 0.75f, 7, Light_Type::Raycaster);
    ASSERT_NE(lit, nullptr);
    EXPECT_EQ(lit->Location(), QelVector3(1.0f, 2.0f, 3.0f));
    EXPECT_EQ(lit->Ambient(), 0.25f);
    EXPECT_EQ(lit->Type(), Light_Type::Raycaster);
    EXPECT_EQ(lit->Material().Diffuse, QelVector3(0.5f, 0.5f, 0.5f));
    EXPECT_EQ(lit->Material().Specular, QelVector3(0.75f, 0.75f, 0.75f));
    EXPECT_EQ(lit->Material().Shininess, 7u);
    EXPECT_EQ(lit->Material().ColorSource, nullptr);
}

}  // namespace
