#include "graphics/QelLight.h"

#include <new>

std::unique_ptr<QelLight> QelLight::New()
{
    return std::unique_ptr<QelLight>(new (std::nothrow) QelLight);
}

std::unique_ptr<QelLight> QelLight::New(const QelVector3& location, float ambient, float diffuse, float specular,
                                        std::uint32_t shininess, Light_Type type)
{
    std::unique_ptr<QelLight> light = New();
    if (!light)
        return nullptr;
    light->SetLocation(location);
    light->SetAmbient(ambient);
    light->SetLightType(type);
    QelMaterialProperties& material = light->Material();
    material.Diffuse = QelVector3(diffuse, diffuse, diffuse);
    material.Specular = QelVector3(specular, specular, specular);
    material.Shininess = shininess;
    material.ColorSource = nullptr;
    return light;
}
