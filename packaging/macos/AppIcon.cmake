# The bundle's icon, made at build time from the Linux icon: sips scales the PNG to every size of an
# .iconset and iconutil packs it into Quorvane.icns in the bundle's Resources.
function(quorvane_add_app_icon target source_png)
    find_program(SIPS sips REQUIRED)
    find_program(ICONUTIL iconutil REQUIRED)
    set(iconset ${CMAKE_CURRENT_BINARY_DIR}/Quorvane.iconset)
    set(icns ${CMAKE_CURRENT_BINARY_DIR}/Quorvane.icns)
    set(commands COMMAND ${CMAKE_COMMAND} -E rm -rf ${iconset} COMMAND ${CMAKE_COMMAND} -E make_directory ${iconset})
    # Each point size at 1x and 2x, named as iconutil expects.
    foreach(size 16 32 128 256 512)
        math(EXPR double "${size} * 2")
        list(APPEND commands
            COMMAND ${SIPS} -z ${size} ${size} ${source_png} --out ${iconset}/icon_${size}x${size}.png
            COMMAND ${SIPS} -z ${double} ${double} ${source_png} --out ${iconset}/icon_${size}x${size}@2x.png)
    endforeach()
    add_custom_command(OUTPUT ${icns}
        ${commands}
        COMMAND ${ICONUTIL} -c icns ${iconset} -o ${icns}
        DEPENDS ${source_png}
        COMMENT "Making the application icon"
        VERBATIM)
    target_sources(${target} PRIVATE ${icns})
    set_source_files_properties(${icns} PROPERTIES MACOSX_PACKAGE_LOCATION Resources)
endfunction()
