"""Python access to the Zelqa data provider; see vorda.zelqa."""
