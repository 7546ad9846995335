# The headers document themselves in plain // comments; Doxygen reads them as
# its own /// comments.
s#^\([[:space:]]*\)//\( \|$\)#\1///\2#
