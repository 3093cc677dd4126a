namespace tevrin {}
