# The operator tool's tests reach its argument parser and output formats
# directly and run the built tool and demo for their exit statuses.
if(TARGET kavro_cli_test AND TARGET kavro)
  target_link_libraries(kavro_cli_test PRIVATE kavro_cli)
  target_compile_definitions(kavro_cli_test PRIVATE KAVRO_TOOL_PATH="$<TARGET_FILE:kavro>"
    KAVRO_DEMO_PATH="$<TARGET_FILE:kavro-demo>")
  add_dependencies(kavro_cli_test kavro kavro-demo)
endif()
