# The library's sources, named once. Each subsystem folder is a layer: a library target of its own,
# whose include directory is the folder and whose link line names the layers below it that it may
# use, so that a file including a header of any other folder does not compile. Within a folder the
# portable files (no Windows API) stand apart: the Windows build, the native sanitizer build with
# its tests (tests/native) and the fuzzers (fuzz/) all take them from here.
#
# Paths are relative to the project root. tests/check_layers.py reads this file too.

# Bottom first.
set(DX_LAYERS frame host settings config ui socks http)

# What each layer may use.
set(DX_USES_frame "")
set(DX_USES_host frame)
set(DX_USES_settings host frame)
set(DX_USES_config settings host frame)
set(DX_USES_ui config settings host frame)
set(DX_USES_socks ui config settings host frame)
set(DX_USES_http ui config settings host frame)

# Registry and list, log, lifecycle and hidden windows, resolver, the export frame of both families.
set(DX_PORTABLE_frame
  frame/decimal_text.cpp
  frame/legacy_resolver.cpp
  frame/linked_list.cpp
  frame/log_format.cpp
  frame/shared_list.cpp)
set(DX_WIN32_frame
  frame/export_frame.cpp
  frame/lifecycle.cpp
  frame/log.cpp
  frame/proxy_socket.cpp
  frame/proxy_socket_manager.cpp
  frame/resolver.cpp)

# Suite library, resource library, UI library binding, version information, the identity table.
set(DX_PORTABLE_host
  host/ident_query.cpp
  host/identity_table.cpp
  host/suite_path.cpp
  host/version_text.cpp)
set(DX_WIN32_host
  host/identity_mapping.cpp
  host/suite_library.cpp
  host/version_info.cpp)

# XML document, settings file, registry layer.
set(DX_PORTABLE_settings
  settings/registry_value.cpp
  settings/settings_text.cpp)
set(DX_WIN32_settings
  settings/settings_file.cpp
  settings/settings_maps.cpp
  settings/xml_document.cpp
  settings/xml_registry.cpp)

# Proxy maps: the record, the families' sets and the choice of a map for a destination.
set(DX_PORTABLE_config
  config/config_number.cpp
  config/determination_copies.cpp
  config/map_rules.cpp
  config/registry_names.cpp)
set(DX_WIN32_config
  config/config_sets.cpp
  config/determination.cpp
  config/http_config.cpp
  config/proxy_map.cpp
  config/proxy_map_set.cpp
  config/registry_store.cpp
  config/shim_detection.cpp
  config/socks_config.cpp
  config/xml_store.cpp)

# The kinds of Windows the dialogs tell apart, the image button and the dialogs' small helpers, the
# configuration dialogs and what they compute.
set(DX_PORTABLE_ui
  ui/combo_height.cpp
  ui/dialog_text.cpp
  ui/os_kind_rules.cpp)
set(DX_WIN32_ui
  ui/config_dialog.cpp
  ui/image_button.cpp
  ui/os_kind.cpp)

# The SOCKS client.
set(DX_PORTABLE_socks
  socks/socks4_wire.cpp
  socks/socks5_wire.cpp
  socks/socks_password.cpp)
set(DX_WIN32_socks
  socks/socks_socket.cpp
  socks/socks_exports.cpp)

# The HTTP CONNECT client.
set(DX_PORTABLE_http
  http/base64.cpp
  http/http_wire.cpp)
set(DX_WIN32_http
  http/http_socket.cpp
  http/http_exports.cpp)

# The top, above every layer: the two files that know all of them. The entry routine sets up every
# subsystem; the factory makes the registry's objects of either socket class.
set(DX_TOP_SOURCES
  frame/dll_main.cpp
  frame/proxy_socket_factory.cpp)

# The project's version, "major.minor.patch.tweak", for the version record of host/version_text.cpp.
function(dx_version_definitions target version)
  string(REPLACE "." ";" parts ${version})
  list(GET parts 0 major)
  list(GET parts 1 minor)
  list(GET parts 2 patch)
  list(GET parts 3 tweak)
  target_compile_definitions(${target} PRIVATE
    DX_VERSION_MAJOR=${major} DX_VERSION_MINOR=${minor} DX_VERSION_PATCH=${patch} DX_VERSION_TWEAK=${tweak})
endfunction()

# Makes one target per layer from its portable files only, named <prefix>_<layer>, with the same
# include directories and uses as the Windows build: a static library where the layer has portable
# files, else an interface target that gives its headers. `options` go to compiling and linking;
# `version` is the project's.
function(dx_portable_layers prefix root options version)
  foreach(layer ${DX_LAYERS})
    set(target ${prefix}_${layer})
    if(DX_PORTABLE_${layer})
      list(TRANSFORM DX_PORTABLE_${layer} PREPEND ${root}/ OUTPUT_VARIABLE files)
      add_library(${target} STATIC ${files})
      target_include_directories(${target} PUBLIC ${root}/${layer})
      target_compile_options(${target} PUBLIC ${options})
      target_link_options(${target} PUBLIC ${options})
      set(scope PUBLIC)
      if(layer STREQUAL host)
        dx_version_definitions(${target} ${version})
      endif()
    else()
      add_library(${target} INTERFACE)
      target_include_directories(${target} INTERFACE ${root}/${layer})
      set(scope INTERFACE)
    endif()
    foreach(use ${DX_USES_${layer}})
      target_link_libraries(${target} ${scope} ${prefix}_${use})
    endforeach()
  endforeach()
endfunction()
