# Runs at install time, once the prefix is known. A prefix whose last component ends in ".app" is
# a bundle the updater replaces whole, and bundle.json at its root says what it is. Anything else
# is a system install (package staging under DESTDIR included), where polkit reads the action,
# which must name the writer by the full path it ends up at; inside a movable bundle it could not.
string(REGEX REPLACE "/+$" "" qm_prefix "${CMAKE_INSTALL_PREFIX}")
if(qm_prefix MATCHES "\\.app$")
  file(INSTALL DESTINATION "${qm_prefix}" TYPE FILE FILES "${QM_BUNDLE_JSON}")
else()
  set(QM_WRITER_INSTALLED "${qm_prefix}/${QM_DATADIR}/quillmate-flasher/qm-writer")
  file(READ "${QM_POLICY_IN}" qm_policy)
  string(CONFIGURE "${qm_policy}" qm_policy @ONLY)
  set(qm_policy_file "$ENV{DESTDIR}${qm_prefix}/${QM_DATADIR}/polkit-1/actions/org.quillmate.flasher.policy")
  message(STATUS "Installing: ${qm_policy_file}")
  file(WRITE "${qm_policy_file}" "${qm_policy}")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${qm_policy_file}")
endif()
