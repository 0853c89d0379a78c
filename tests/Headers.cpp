// Nothing of its own: the precompiled headers of the white-box tests belong to some target.
