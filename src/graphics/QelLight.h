#pragma once

#include "base/QelVector.h"
#include "graphics/QelRenderEnums.h"

#include <cstdint>
#include <memory>

class QelColorOpacitySource;

/// How the system names the kinds of material colour. Nothing sets or compares a
/// kind, so only the default, 0, is ever held.
enum class e_color_type : std::int32_t {};

/// The surface response that a light's shading uses: grey diffuse and specular
/// colours and the specular exponent. A plain value; copy it freely. The colour
/// source is not owned.
struct QelMaterialProperties {
    QelVector3 Diffuse;
    QelVector3 Specular;
    std::uint32_t Shininess;
    e_color_type ColorType{};
    QelColorOpacitySource* ColorSource = nullptr;

    /// Diffuse (diffuse, diffuse, diffuse), specular likewise.
    constexpr QelMaterialProperties(float diffuse, float specular, std::uint32_t shininess) noexcept
        : Diffuse(diffuse, diffuse, diffuse), Specular(specular, specular, specular), Shininess(shininess)
    {
    }
};

/// The one light of a shaded render: where it is, in view space as the renderer
/// takes it, how much ambient light it adds, and the material it shades with.
/// Whoever makes a light owns it; the render record only points at it.
class QelLight {
public:
    static constexpr float kDefaultAmbient = 32.0f / 255.0f;
    static constexpr float kDefaultDiffuse = 200.0f / 255.0f;
    static constexpr std::uint32_t kDefaultShininess = 32;

    /// The default light. Null when memory runs out.
    [[nodiscard]] static std::unique_ptr<QelLight> New();
    /// The default light with its location, ambient term, type, grey diffuse and
    /// specular colours and shininess replaced, and no colour source. Null when memory
    /// runs out.
    [[nodiscard]] static std::unique_ptr<QelLight> New(const QelVector3& location, float ambient, float diffuse,
                                                       float specular, std::uint32_t shininess, Light_Type type);

    [[nodiscard]] const QelVector3& Location() const noexcept { return m_location; }
    void SetLocation(const QelVector3& location) noexcept { m_location = location; }
    [[nodiscard]] Light_Type Type() const noexcept { return m_type; }
    void SetLightType(Light_Type type) noexcept { m_type = type; }
    [[nodiscard]] const QelMaterialProperties& Material() const noexcept { return m_material; }
    [[nodiscard]] QelMaterialProperties& Material() noexcept { return m_material; }
    [[nodiscard]] float Ambient() const noexcept { return m_ambient; }
    void SetAmbient(float ambient) noexcept { m_ambient = ambient; }

private:
    QelLight() noexcept = default;

    QelVector3 m_location{0.95f, -0.5f, -1.5f};
    Light_Type m_type = Light_Type::Shaded;
    QelMaterialProperties m_material{kDefaultDiffuse, 0.0f, kDefaultShininess};
    float m_ambient = kDefaultAmbient;
};
