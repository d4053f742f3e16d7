include(GNUInstallDirs)

install(TARGETS tov RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES README.md LICENSE CHANGELOG.md
  docs/architecture.md docs/figures.md docs/glossary.md docs/operators.md docs/vsd.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
# Examples, not files in use: what restarts the daemon and what a self-healing request does are the
# integrator's to decide. An installed hook would make a development machine reboot.
install(FILES packaging/tov.service DESTINATION ${CMAKE_INSTALL_DOCDIR}/packaging)
install(PROGRAMS packaging/tov.init packaging/selfhealing
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/packaging)
